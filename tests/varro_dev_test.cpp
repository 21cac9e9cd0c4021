#include <tessel_os_varro/varro.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

using namespace tessel_os_varro;

// The development broker's files on a disk that is full: /dev/full takes
// the place of the files, and every write to it fails with ENOSPC.
TEST(DevelopmentBroker, WriteFailuresFailTheItemOrTheTopicAtOnce) {
    char dir[] = "/tmp/radarscene-varro-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("VARRO_DEV_DIR", dir, 1);
    std::string folder = dir;
    auto client = Client::Create("test", {4, 1, 0});
    ASSERT_TRUE(client->Connect());

    ASSERT_EQ(symlink("/dev/full", (folder + "/full.topic.json").c_str()), 0);
    auto unwritable = client->CreateTopic(R"({"topic_name":"full"})");
    ASSERT_FALSE(unwritable);
    EXPECT_EQ(unwritable.error().code, ApiErrorCode::IoError);

    ASSERT_TRUE(client->CreateTopic(R"({"topic_name":"scene"})"));
    ASSERT_EQ(symlink("/dev/full", (folder + "/scene.jsonl").c_str()), 0);
    auto writer = client->CreateTopicDataWriter("writer");
    ASSERT_TRUE(writer);
    ASSERT_TRUE((*writer)->Initialize("scene"));
    // Every item fails, but only the first failure is reported.
    FILE* log = tmpfile();
    int saved_stderr = dup(STDERR_FILENO);
    dup2(fileno(log), STDERR_FILENO);
    auto written = (*writer)->WriteData(*TopicData::FromJson("{}"), std::nullopt);
    auto again = (*writer)->WriteData(*TopicData::FromJson("{}"), std::nullopt);
    dup2(saved_stderr, STDERR_FILENO);
    close(saved_stderr);
    ASSERT_FALSE(written);
    EXPECT_FALSE(again);
    EXPECT_EQ(written.error().code, ApiErrorCode::IoError);
    std::string lines(static_cast<size_t>(ftell(log)), '\0');
    rewind(log);
    EXPECT_EQ(fread(lines.data(), 1, lines.size(), log), lines.size());
    fclose(log);
    EXPECT_EQ(lines, "<4>varro-dev: cannot append to " + folder +
                         "/scene.jsonl: No space left on device; items are dropped\n");

    for (const char* file : {"/full.topic.json", "/scene.jsonl", "/scene.topic.json"}) {
        unlink((folder + file).c_str());
    }
    rmdir(dir);
    unsetenv("VARRO_DEV_DIR");
}

TEST(DevelopmentBroker, TopicFilesStayWithinTheirBoundAndKeepTheNewestItems) {
    char dir[] = "/tmp/radarscene-varro-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("VARRO_DEV_DIR", dir, 1);
    setenv("VARRO_DEV_MAX_BYTES", "1000", 1);
    auto client = Client::Create("test", {4, 1, 0});
    ASSERT_TRUE(client->Connect());
    ASSERT_TRUE(client->CreateTopic(R"({"topic_name":"scene"})"));
    auto writer = client->CreateTopicDataWriter("writer");
    ASSERT_TRUE((*writer)->Initialize("scene"));
    for (int i = 0; i < 300; ++i) {
        std::string item = R"({"n":)" + std::to_string(i) + "}";
        ASSERT_TRUE((*writer)->WriteData(*TopicData::FromJson(item), std::nullopt));
    }
    std::string folder = dir;
    std::ifstream current(folder + "/scene.jsonl"), older(folder + "/scene.jsonl.1");
    std::string text((std::istreambuf_iterator<char>(current)), {});
    std::string old_text((std::istreambuf_iterator<char>(older)), {});
    EXPECT_LE(text.size() + old_text.size(), 1000u);
    EXPECT_TRUE(text.ends_with("{\"n\":299}\n"));
    EXPECT_TRUE(old_text.starts_with("{\"n\":2")) << old_text.substr(0, 20);

    for (const char* file : {"/scene.jsonl", "/scene.jsonl.1", "/scene.topic.json"}) {
        unlink((folder + file).c_str());
    }
    rmdir(dir);
    unsetenv("VARRO_DEV_DIR");
    unsetenv("VARRO_DEV_MAX_BYTES");
}
