#pragma once

#include "providerdbus/dbus.h"
#include "providerdbus/scene_adaptor.h"
#include "providerdbus/scene_proxy.h"
#include "providerdbus/sdbuscompat.h"

#include <memory>
#include <string>

namespace API::SdBusCpp {

// Asks a running provider for its object classes; it has a system-bus
// connection and event-loop thread of its own.
class ClassificationClient
    : public sdbus::ProxyInterfaces<com::tessel::RadarSceneProvider1::Scene_proxy> {
public:
    ClassificationClient(std::string destination, std::string objectPath);
    ~ClassificationClient();
    using ProxyInterfaces::getProxy;
};

// The provider object on the producer's connection. Every method runs on
// the producer's event-loop thread and checks the caller first.
class ProviderScene
    : public DBus,
      private sdbus::AdaptorInterfaces<com::tessel::RadarSceneProvider1::Scene_adaptor> {
public:
    ProviderScene(sdbus::IConnection& connection, std::string serviceName, std::string objectPath,
                  channel_handler_t* handler, bool requestNameNow);
    ~ProviderScene() override;

    // Claims the service name; at most once per provider.
    void requestName() override;

private:
    std::tuple<sdbus::UnixFd, int32_t> SubscribeSocket(
        const int32_t& dataformat, const int32_t& channel,
        const std::map<std::string, bool>& feature_parameters) override;
    void UnsubscribeSocket(const int32_t& session) override;
    int32_t GetNumberOfChannels() override;
    std::vector<int32_t> GetSupportedChannels() override;
    std::map<int32_t, std::string> GetObjectClassifications(const int32_t& channel) override;

    void checkCaller();
    std::string currentSender();

    sdbus::IConnection& connection_;
    std::string serviceName_;
    std::unique_ptr<ClassificationClient> classificationClient_;
    std::string classificationClientName_;  // unique bus name of its connection
    bool nameRequested_ = false;
};

}  // namespace API::SdBusCpp
