// The viewer's page in a real browser: Debian's chromium, headless, driven
// by puppeteer-core. Waits until the page has drawn scenes, keeps a
// screenshot, and prints one JSON line: what the page says it drew, its
// status line, notice and address, and how many pixels carry the objects'
// colours. With "stale", it then waits for the picture to go stale (the
// test stops the provider) and prints a second line, and for it to be live
// again (the test starts a provider) and prints a third.
// Usage: node view_page.mjs <url> <screenshot.png> [<certificate SPKI hash>] [stale]
import puppeteer from "puppeteer-core";

const [url, screenshot, spki, stale] = process.argv.slice(2);
const browser = await puppeteer.launch({
  executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
  headless: true,
  args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
    ...(spki ? [`--ignore-certificate-errors-spki-list=${spki}`] : [])],
});
const seen = (page) =>
  page.evaluate(() => ({
    drawn: window.radarView.drawn,
    status: document.getElementById("status").textContent,
    notice: document.getElementById("notice").textContent,
    address: location.href,
  }));
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 900, height: 700 });
  await page.goto(url);
  await page.waitForFunction(
    () =>
      window.radarView.drawn.objects.length > 0 &&
      !document.getElementById("status").textContent.startsWith("0.0"),
    { timeout: 20000 },
  );
  const result = await seen(page);
  await page.screenshot({ path: screenshot });
  result.coloured = await page.evaluate(() => {
    const canvas = document.getElementById("radar");
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    let count = 0;
    for (let i = 0; i < pixels.length; i += 4) {
      const [r, g, b] = [pixels[i], pixels[i + 1], pixels[i + 2]];
      // The classes of the demo: green and orange.
      if ((g > 150 && r < 120 && b < 120) || (r > 200 && g > 140 && b < 90)) count++;
    }
    return count;
  });
  console.log(JSON.stringify(result));
  if (stale) {
    await page.waitForFunction(
      () => window.radarView.drawn.stale && document.getElementById("notice").textContent,
      { timeout: 30000 },
    );
    console.log(JSON.stringify(await seen(page)));
    // The test starts a provider again: the page draws live scenes again.
    await page.waitForFunction(() => !window.radarView.drawn.stale, { timeout: 30000 });
    console.log(JSON.stringify(await seen(page)));
  }
} finally {
  await browser.close();
}
