// The MQTT backend against mosquitto brokers that the tests start, plain and
// with TLS.

#include <tessel_os_varro/varro.h>

#include "mqtt_settings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace tessel_os_varro;
using namespace std::chrono_literals;

namespace {

int free_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t size = sizeof(address);
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
    close(s);
    return ntohs(address.sin_port);
}

bool port_open(int port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool open = connect(s, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(s);
    return open;
}

// A mosquitto broker of the test's own on a free loopback port.
class Broker {
public:
    explicit Broker(const std::string& extra = "allow_anonymous true\n") : port_(free_port()) {
        char dir[] = "/tmp/radarscene-mqtt-XXXXXX";
        dir_ = mkdtemp(dir);
        chmod(dir_.c_str(), 0755);  // a broker started as root reads it as its own user
        std::ofstream(dir_ + "/mosquitto.conf")
            << "listener " << port_ << " 127.0.0.1\npersistence false\n"
            << extra;
        start();
    }
    ~Broker() {
        stop();
        std::system(("rm -rf " + dir_).c_str());
    }

    void start() {
        pid_ = fork();
        if (pid_ == 0) {
            int log = open((dir_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(log, STDERR_FILENO);
            execlp("mosquitto", "mosquitto", "-c", (dir_ + "/mosquitto.conf").c_str(),
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500 && !port_open(port_); ++i) {
            std::this_thread::sleep_for(10ms);
        }
    }
    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    int port() const { return port_; }
    const std::string& dir() const { return dir_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

private:
    int port_;
    std::string dir_;
    pid_t pid_ = -1;
};

std::unique_ptr<Client> connected() {
    auto client = Client::Create("radarscene-test", {4, 1, 0});
    auto connection = client->Connect();
    EXPECT_TRUE(connection) << connection.error().message;
    return client;
}

std::unique_ptr<Client> connected_client(const Broker& broker) {
    setenv("VARRO_MQTT_URL", broker.url().c_str(), 1);
    return connected();
}

std::unique_ptr<TopicDataWriter> scene_writer(Client& client,
                                              const std::string& topic = "mdb.scene") {
    EXPECT_TRUE(client.CreateTopic(R"({"topic_name":")" + topic + R"("})"));
    auto writer = std::move(*client.CreateTopicDataWriter("writer"));
    EXPECT_TRUE(writer->Initialize(topic));
    EXPECT_TRUE(
        writer->CreateInstance(TopicInstance(topic, R"({"source":"1"})", std::nullopt), true));
    return writer;
}

// Waits for `done` to hold, at most 10 seconds.
template <typename Condition>
bool eventually(Condition done) {
    for (int i = 0; i < 1000 && !done(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    return done();
}

std::string read_all(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// The process's standard error, kept in a file while the object lives.
class CapturedLog {
public:
    CapturedLog() : file_(tmpfile()), saved_(dup(STDERR_FILENO)) {
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~CapturedLog() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        fclose(file_);
    }
    std::string text() const { return read_all("/proc/self/fd/" + std::to_string(fileno(file_))); }
    bool wait_for(const std::string& part, size_t count = 1) const {
        return eventually([&] { return occurrences(text(), part) >= count; });
    }

private:
    FILE* file_;
    int saved_;
};

// mosquitto_sub on `topic` with `options` (for TLS), its output ("topic
// payload" lines) in a file.
class Subscriber {
public:
    Subscriber(const Broker& broker, const std::string& topic,
               std::vector<std::string> options = {})
        : output_(broker.dir() + "/received-" + std::to_string(++subscribers)) {
        options.insert(options.begin(), {"mosquitto_sub", "-h", "127.0.0.1", "-p",
                                         std::to_string(broker.port()), "-t", topic, "-v"});
        std::vector<char*> argv;
        for (auto& option : options) {
            argv.push_back(option.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
            execvp(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Subscriber() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    std::vector<std::string> lines() const {
        std::istringstream in(read_all(output_));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    bool wait_for(size_t count) const {
        return eventually([&] { return lines().size() >= count; });
    }

private:
    static inline int subscribers = 0;
    std::string output_;
    pid_t pid_;
};

// A test CA with its certificates (tests/varro_mqtt_certs.sh), the users
// radar and watcher, and an access list that lets radar write mdb.scene
// but not the data of mdb.refused. mosquitto_sub logs in as watcher from
// its configuration file, so that no password is on a command line, and
// shows the client certificate.
class TlsBrokerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char dir[] = "/tmp/radarscene-pki-XXXXXX";
        pki_ = mkdtemp(dir);
        chmod(pki_.c_str(), 0755);
        ASSERT_EQ(std::system(
                      ("bash " RADARSCENE_SOURCE_DIR "/tests/varro_mqtt_certs.sh " + pki_).c_str()),
                  0);
        std::string passwords = pki_ + "/passwords";
        ASSERT_EQ(std::system(("mosquitto_passwd -b -c " + passwords + " radar fleet-secret && " +
                               "mosquitto_passwd -b " + passwords + " watcher watchword")
                                  .c_str()),
                  0);
        chmod(passwords.c_str(), 0644);
        std::ofstream(pki_ + "/acl") << "user radar\ntopic readwrite mdb.scene/#\n"
                                     << "topic write mdb.refused/$definition\n"
                                     << "topic write mdb.refused/$instances/#\n"
                                     << "user watcher\ntopic read #\n";
        std::ofstream(pki_ + "/password") << "fleet-secret\n";
        std::ofstream(pki_ + "/mosquitto_sub")
            << "-u watcher\n-P watchword\n--cafile " << pki_ << "/ca.crt\n--cert " << pki_
            << "/client.crt\n--key " << pki_ << "/client.key\n";
        setenv("XDG_CONFIG_HOME", pki_.c_str(), 1);
    }
    static void TearDownTestSuite() {
        unsetenv("XDG_CONFIG_HOME");
        std::system(("rm -rf " + pki_).c_str());
    }

    // The broker's settings with `cert` as its certificate.
    static std::string config(const std::string& cert = "server") {
        return "cafile " + pki_ + "/ca.crt\ncertfile " + pki_ + "/" + cert + ".crt\nkeyfile " +
               pki_ +
               "/server.key\nrequire_certificate true\nallow_anonymous false\npassword_file " +
               pki_ + "/passwords\nacl_file " + pki_ + "/acl\n";
    }

    // The device's settings for `broker`: client certificate, password
    // file and a reconnection delay short enough for the test.
    static void device(const Broker& broker, const std::string& cafile = "ca") {
        for (const auto& [name, value] : std::map<std::string, std::string>{
                 {"URL", "mqtts://127.0.0.1:" + std::to_string(broker.port())},
                 {"CAFILE", pki_ + "/" + cafile + ".crt"},
                 {"CERTFILE", pki_ + "/client.crt"},
                 {"KEYFILE", pki_ + "/client.key"},
                 {"USERNAME", "radar"},
                 {"PASSWORD_FILE", pki_ + "/password"},
                 {"RECONNECT_DELAY", "0.01:0.05"}}) {
            setenv(("VARRO_MQTT_" + name).c_str(), value.c_str(), 1);
        }
    }
    void TearDown() override {
        for (const char* name : {"URL", "CAFILE", "CERTFILE", "KEYFILE", "USERNAME", "PASSWORD",
                                 "PASSWORD_FILE", "RECONNECT_DELAY"}) {
            unsetenv((std::string("VARRO_MQTT_") + name).c_str());
        }
    }

    static std::string pki_;
};

std::string TlsBrokerTest::pki_;

}  // namespace

TEST(MqttBroker, TopicDefinitionsAreRetainedForTheNextClient) {
    Broker broker;
    auto first = connected_client(broker);
    auto missing = first->GetTopic("mdb.scene");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, ApiErrorCode::NotFound);
    ASSERT_TRUE(first->CreateTopic(R"({"topic_name":"mdb.scene","version":"1.0.0"})"));
    auto second = connected_client(broker);
    EXPECT_TRUE(second->GetTopic("mdb.scene"));
    Subscriber definition(broker, "mdb.scene/$definition");
    ASSERT_TRUE(definition.wait_for(1));
    EXPECT_EQ(definition.lines(),
              std::vector<std::string>{
                  R"(mdb.scene/$definition {"topic_name":"mdb.scene","version":"1.0.0"})"});
}

TEST(MqttBroker, ItemsArriveByteForByteAndTheLatestIsRetained) {
    Broker broker;
    auto client = connected_client(broker);
    auto writer = scene_writer(*client);
    Subscriber early(broker, "mdb.scene/$instances/1", {"-t", "mdb.scene/1"});
    ASSERT_TRUE(early.wait_for(1));  // the instance key: subscribed
    std::vector<std::string> items = {R"({"data":"CAA=","source":"1"})",
                                      R"({"data":"CAE=","source":"1"})"};
    for (const auto& item : items) {
        ASSERT_TRUE(writer->WriteData(*TopicData::FromJson(item), std::nullopt));
    }
    ASSERT_TRUE(early.wait_for(3));
    EXPECT_EQ(early.lines(),
              (std::vector<std::string>{R"(mdb.scene/$instances/1 {"source":"1"})",
                                        "mdb.scene/1 " + items[0], "mdb.scene/1 " + items[1]}));
    Subscriber late(broker, "mdb.scene/1");
    ASSERT_TRUE(late.wait_for(1));
    EXPECT_EQ(late.lines(), std::vector<std::string>{"mdb.scene/1 " + items.back()});
}

TEST(MqttReconnection, DelaysDoubleUpToTheBoundAndVaryWithinTheirUpperHalf) {
    mqtt_settings_t settings;
    settings.min_delay = 100ms;
    settings.max_delay = 1000ms;
    EXPECT_EQ(mqtt_settings_reconnect_delay(settings, 0, 0), 50ms);
    EXPECT_EQ(mqtt_settings_reconnect_delay(settings, 0, 0.5), 75ms);
    EXPECT_EQ(mqtt_settings_reconnect_delay(settings, 2, 0), 200ms);
    EXPECT_EQ(mqtt_settings_reconnect_delay(settings, 40, 0), 500ms);
    EXPECT_EQ(mqtt_settings_reconnect_delay(settings, 40, 1), 1000ms);
}

TEST_F(TlsBrokerTest, ItemsReachAVerifiedBrokerThatWantsACertificateAndAPassword) {
    Broker broker(config());
    device(broker);
    auto client = connected();
    auto writer = scene_writer(*client);
    Subscriber received(broker, "mdb.scene/#");
    ASSERT_TRUE(received.wait_for(2));  // the retained definition and instance key
    for (const char* item : {R"({"n":1})", R"({"n":2})"}) {
        ASSERT_TRUE(writer->WriteData(*TopicData::FromJson(item), std::nullopt));
    }
    ASSERT_TRUE(received.wait_for(4));
    auto lines = received.lines();
    std::sort(lines.begin(), lines.begin() + 2);
    EXPECT_EQ(lines,
              (std::vector<std::string>{R"(mdb.scene/$definition {"topic_name":"mdb.scene"})",
                                        R"(mdb.scene/$instances/1 {"source":"1"})",
                                        R"(mdb.scene/1 {"n":1})", R"(mdb.scene/1 {"n":2})"}));
}

// Each refusal gives Connect's error and one log line, however often the
// client tries again, and never the password.
TEST_F(TlsBrokerTest, RefusedBrokersAndLoginsAreLoggedOnceWithTheirReason) {
    struct refusal_t {
        std::string cert, cafile;
        std::map<std::string, std::string> overrides;
        std::string reason;
    };
    auto tls = [](const std::string& why) {
        return "TLS with the MQTT broker at %s failed: " + why + "; nothing is sent to it";
    };
    std::vector<refusal_t> refusals = {
        {"server", "other-ca", {}, tls("self-signed certificate in certificate chain")},
        {"expired", "ca", {}, tls("certificate has expired")},
        {"elsewhere", "ca", {}, tls("IP address mismatch")},
        {"server",
         "ca",
         {{"CERTFILE", ""}, {"KEYFILE", ""}},
         tls("error:0A00045C:SSL routines::tlsv13 alert certificate required")},
        {"server",
         "ca",
         {{"PASSWORD_FILE", ""}, {"PASSWORD", "wrong-secret"}},
         "the MQTT broker at %s refused the credentials: Not authorized"}};
    for (const auto& refusal : refusals) {
        SCOPED_TRACE(refusal.reason);
        Broker broker(config(refusal.cert));
        device(broker, refusal.cafile);
        for (const auto& [name, value] : refusal.overrides) {
            setenv(("VARRO_MQTT_" + name).c_str(), value.c_str(), 1);
        }
        std::string line = refusal.reason;
        line.replace(line.find("%s"), 2, broker.address());
        CapturedLog log;
        {
            auto client = Client::Create("radarscene-test", {4, 1, 0});
            auto connected = client->Connect();
            ASSERT_FALSE(connected);
            EXPECT_EQ(connected.error().message, line);
            // The client keeps trying meanwhile.
            EXPECT_TRUE(eventually([&] {
                return occurrences(read_all(broker.dir() + "/log"), "New connection from") >= 3;
            }));
        }
        EXPECT_EQ(log.text(), "<3>varro: " + line + "\n");
    }
}

TEST_F(TlsBrokerTest, ItemsToATopicTheAccessListRefusesAreLoggedOnceAndCounted) {
    Broker broker(config());
    device(broker);
    CapturedLog log;
    {
        auto client = connected();
        auto writer = scene_writer(*client, "mdb.refused");
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(writer->WriteData(*TopicData::FromJson("{}"), std::nullopt));
        }
        // The broker answers in order: once it has taken this definition,
        // it has answered every item before it.
        ASSERT_TRUE(client->CreateTopic(R"({"topic_name":"mdb.scene"})"));
    }
    std::string at = "the MQTT broker at " + broker.address();
    EXPECT_EQ(log.text(), "<6>varro: connected to " + at + "\n<4>varro: " + at +
                              " refuses items on 'mdb.refused/1': Not authorized\n"
                              "<6>varro: left " +
                              at +
                              "; data items dropped: 0 while it was away, 5 refused, 0 beyond "
                              "100 awaiting its acknowledgement\n");
}

// A device connected to a TLS broker that the test restarts.
class TlsRestartTest : public TlsBrokerTest {
protected:
    void SetUp() override {
        device(broker);
        client = connected();
        writer = scene_writer(*client);
    }

    Broker broker{config()};
    CapturedLog log;
    std::unique_ptr<Client> client;
    std::unique_ptr<TopicDataWriter> writer;
};

TEST_F(TlsRestartTest, ARestartedBrokerGetsDefinitionsAndKeysAgainAndItemsMeanwhileAreCounted) {
    broker.stop();
    ASSERT_TRUE(log.wait_for("lost the MQTT broker"));
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(writer->WriteData(*TopicData::FromJson(R"({"lost":true})"), std::nullopt));
    }
    broker.start();
    ASSERT_TRUE(log.wait_for("again; 20 data items were dropped while it was away")) << log.text();
    Subscriber received(broker, "mdb.scene/#");
    ASSERT_TRUE(received.wait_for(2));
    std::vector<std::string> expected = {R"(mdb.scene/$definition {"topic_name":"mdb.scene"})",
                                         R"(mdb.scene/$instances/1 {"source":"1"})"};
    for (int i = 0; i < 10; ++i) {
        std::string item = R"({"n":)" + std::to_string(i) + "}";
        ASSERT_TRUE(writer->WriteData(*TopicData::FromJson(item), std::nullopt));
        expected.push_back("mdb.scene/1 " + item);
    }
    ASSERT_TRUE(received.wait_for(12));
    auto lines = received.lines();
    std::sort(lines.begin(), lines.begin() + 2);
    EXPECT_EQ(lines, expected);
}

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

size_t open_descriptors() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += entry.is_symlink();
    }
    return count;
}

long resident_kib() {
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

}  // namespace

TEST_F(TlsRestartTest, AHundredReconnectionsLeaveMemoryAndDescriptorsFlat) {
    size_t descriptors = 0;
    long resident = 0;
    for (int i = 1; i <= 100; ++i) {
        broker.stop();
        broker.start();
        ASSERT_TRUE(log.wait_for(" again; ", i));
        EXPECT_TRUE(writer->WriteData(*TopicData::FromJson("{}"), std::nullopt));
        if (i == 10) {
            descriptors = open_descriptors();
            resident = resident_kib();
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    // The sanitizers hold freed memory back on purpose.
    if (!SANITIZED) {
        EXPECT_LT(resident_kib() - resident, 512);
    }
}
