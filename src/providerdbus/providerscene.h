#pragma once

#include "providerdbus/dbus.h"
#include "providerdbus/providerstatistics.h"
#include "providerdbus/scene_adaptor.h"
#include "providerdbus/sdbuscompat.h"

#include <map>
#include <memory>
#include <string>

namespace API::SdBusCpp {

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
    void GetObjectClassifications(sdbus::Result<std::map<int32_t, std::string>>&& result,
                                  int32_t channel) override;

    void checkCaller();
    std::string currentSender();
    // Refuses a caller that neither owns the session nor runs as root.
    void checkSessionOwner(int32_t session);
    void rememberSessionOwner(int32_t session);

    sdbus::IConnection& connection_;
    std::string serviceName_;
    // Forwards the classification question to the well-known provider, on
    // the producer's own connection so that the reply comes back through
    // its event loop.
    std::unique_ptr<sdbus::IProxy> classificationClient_;
    std::string uniqueName_;  // of the producer's connection
    // The unique bus name that subscribed each live session; event loop only.
    std::map<int32_t, std::string> sessionOwners_;
    bool nameRequested_ = false;
    // At the Scene object's path + "/Statistics".
    ProviderStatistics statistics_;
};

}  // namespace API::SdBusCpp
