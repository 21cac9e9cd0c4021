#include <tessel_os_varro/varro.h>

#include <mosquitto.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
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
            execlp("mosquitto", "mosquitto", "-c", (dir_ + "/mosquitto.conf").c_str(),
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 100 && !port_open(port_); ++i) {
            std::this_thread::sleep_for(50ms);
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
    std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

private:
    int port_;
    std::string dir_;
    pid_t pid_ = -1;
};

// A separate MQTT client that records what it receives on one topic.
class Listener {
public:
    Listener(int port, const std::string& topic) {
        mosq_ = mosquitto_new(nullptr, true, this);
        mosquitto_message_callback_set(
            mosq_, [](mosquitto*, void* self, const mosquitto_message* m) {
                auto* l = static_cast<Listener*>(self);
                std::lock_guard lock(l->mutex_);
                l->payloads_.emplace_back(static_cast<const char*>(m->payload),
                                          static_cast<size_t>(m->payloadlen));
                l->arrived_.notify_all();
            });
        mosquitto_connect(mosq_, "127.0.0.1", port, 30);
        mosquitto_subscribe(mosq_, nullptr, topic.c_str(), 1);
        mosquitto_loop_start(mosq_);
    }
    ~Listener() {
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, true);
        mosquitto_destroy(mosq_);
    }
    std::vector<std::string> wait_for(size_t count, std::chrono::seconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, timeout, [&] { return payloads_.size() >= count; });
        return payloads_;
    }

private:
    mosquitto* mosq_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> payloads_;
};

std::unique_ptr<Client> connected_client(const Broker& broker) {
    setenv("VARRO_MQTT_URL", broker.url().c_str(), 1);
    auto client = Client::Create("radarscene-test", {4, 1, 0});
    EXPECT_TRUE(client && client->Connect());
    return client;
}

std::unique_ptr<TopicDataWriter> scene_writer(Client& client) {
    EXPECT_TRUE(client.CreateTopic(R"({"topic_name":"mdb.scene"})"));
    auto writer = std::move(*client.CreateTopicDataWriter("writer"));
    EXPECT_TRUE(writer->Initialize("mdb.scene"));
    EXPECT_TRUE(writer->CreateInstance(
        TopicInstance("mdb.scene", R"({"source":"1"})", std::nullopt), true));
    return writer;
}

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
    Listener definition(broker.port(), "mdb.scene/$definition");
    EXPECT_EQ(definition.wait_for(1),
              std::vector<std::string>{R"({"topic_name":"mdb.scene","version":"1.0.0"})"});
}

TEST(MqttBroker, ItemsArriveByteForByteAndTheLatestIsRetained) {
    Broker broker;
    auto client = connected_client(broker);
    auto writer = scene_writer(*client);
    Listener early(broker.port(), "mdb.scene/1");
    std::this_thread::sleep_for(200ms);  // let the listener's subscription settle
    std::vector<std::string> items = {R"({"data":"CAA=","source":"1"})",
                                      R"({"data":"CAE=","source":"1"})"};
    for (const auto& item : items) {
        ASSERT_TRUE(writer->WriteData(*TopicData::FromJson(item), std::nullopt));
    }
    EXPECT_EQ(early.wait_for(2), items);
    Listener late(broker.port(), "mdb.scene/1");
    EXPECT_EQ(late.wait_for(1), std::vector<std::string>{items.back()});
}

TEST(MqttBroker, PublishingGoesOnThroughABrokerRestart) {
    Broker broker;
    auto client = connected_client(broker);
    auto writer = scene_writer(*client);
    broker.stop();
    for (int i = 0; i < 20; ++i) {  // the producer keeps running meanwhile
        EXPECT_TRUE(writer->WriteData(*TopicData::FromJson(R"({"lost":true})"), std::nullopt));
    }
    broker.start();
    Listener after(broker.port(), "mdb.scene/1");
    std::vector<std::string> received;
    for (int i = 0; i < 200 && received.empty(); ++i) {
        writer->WriteData(*TopicData::FromJson(R"({"again":true})"), std::nullopt);
        received = after.wait_for(1, 0s);
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back(), R"({"again":true})");
}

TEST(MqttBroker, RefusedCredentialsAreReported) {
    Broker probe;  // only for its folder
    std::string passwords = probe.dir() + "/passwords";
    ASSERT_EQ(std::system(("mosquitto_passwd -b -c " + passwords + " radar secret").c_str()), 0);
    chmod(passwords.c_str(), 0644);
    Broker broker("allow_anonymous false\npassword_file " + passwords + "\n");
    setenv("VARRO_MQTT_URL", broker.url().c_str(), 1);
    setenv("VARRO_MQTT_USERNAME", "radar", 1);
    setenv("VARRO_MQTT_PASSWORD", "wrong", 1);
    auto client = Client::Create("radarscene-test", {4, 1, 0});
    auto connected = client->Connect();
    unsetenv("VARRO_MQTT_USERNAME");
    unsetenv("VARRO_MQTT_PASSWORD");
    ASSERT_FALSE(connected);
    EXPECT_EQ(connected.error().code, ApiErrorCode::PermissionDenied) << connected.error().message;
}
