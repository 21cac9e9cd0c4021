// Writes an MCAP file with the format's own library: the scenes of a raw
// recording (records of a big-endian length that counts itself, then the
// scene) as RadarScene.Scene messages, under a schema that protobufjs builds
// from scene.proto, in small chunks, beside a channel of another schema.
// Usage: node mcap_write.mjs <scene.proto> <raw recording> <out.mcap>
import { McapWriter } from "@mcap/core";
import { protobufToDescriptor } from "@mcap/support";
import protobuf from "protobufjs";
import { open, readFile } from "node:fs/promises";

const [proto, raw, out] = process.argv.slice(2);
const root = await protobuf.load(proto);
const descriptor = protobufToDescriptor(root);
const schemaData = descriptor.constructor.encode(descriptor).finish();

const file = await open(out, "w");
let position = 0n;
const writer = new McapWriter({
  writable: {
    position: () => position,
    write: async (buffer) => {
      await file.write(buffer);
      position += BigInt(buffer.byteLength);
    },
  },
  chunkSize: 4096,
});
await writer.start({ profile: "", library: "mcap_write.mjs" });
const sceneSchema = await writer.registerSchema({
  name: "RadarScene.Scene",
  encoding: "protobuf",
  data: schemaData,
});
const scenes = await writer.registerChannel({
  schemaId: sceneSchema,
  topic: "/radar/0/scene",
  messageEncoding: "protobuf",
  metadata: new Map(),
});
const noteSchema = await writer.registerSchema({
  name: "Note",
  encoding: "jsonschema",
  data: new TextEncoder().encode('{"type":"object"}'),
});
const notes = await writer.registerChannel({
  schemaId: noteSchema,
  topic: "/notes",
  messageEncoding: "json",
  metadata: new Map(),
});

const bytes = await readFile(raw);
let time = 1_000_000_000n;
for (let at = 0, sequence = 0; at + 4 <= bytes.length; sequence++) {
  const length = bytes.readUInt32BE(at);
  const data = bytes.subarray(at + 4, at + length);
  at += length;
  time += 20_000_000n;
  await writer.addMessage({ channelId: scenes, sequence, logTime: time, publishTime: time, data });
  if (sequence % 4 === 0) {
    const note = new TextEncoder().encode(JSON.stringify({ sequence }));
    await writer.addMessage({ channelId: notes, sequence, logTime: time, publishTime: time, data: note });
  }
}
await writer.end();
await file.close();
