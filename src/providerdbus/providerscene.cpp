#include "providerdbus/providerscene.h"

#include "channelhandler/channelhandler.h"
#include "providerdbus/authorization.h"

namespace API::SdBusCpp {
namespace {

constexpr const char* WELL_KNOWN_NAME = "com.tessel.RadarSceneProvider1";
constexpr const char* WELL_KNOWN_PATH = "/com/tessel/RadarSceneProvider1";
constexpr const char* WELL_KNOWN_INTERFACE = "com.tessel.RadarSceneProvider1.Scene";

// sdbus-c++ turns only sdbus::Error into an error reply; anything else would
// unwind through sd-bus's C frames, so it is translated here.
template <typename Body>
auto guarded(Body&& body) -> decltype(body()) {
    try {
        return body();
    } catch (const sdbus::Error&) {
        throw;
    } catch (const std::exception& e) {
        throw sdbus_compat::error("org.freedesktop.DBus.Error.Failed", e.what());
    }
}

subscription_options_t options_from_features(const std::map<std::string, bool>& features) {
    auto enabled = [&](const char* key) {
        auto it = features.find(key);
        return it != features.end() && it->second;
    };
    subscription_options_t options;
    options.bounding_box = enabled("BOUNDINGBOX_ENABLED");
    options.polygon = enabled("POLYGON_ENABLED");
    options.velocity = enabled("VELOCITY_ENABLED");
    options.geolocation = enabled("GEOLOCATION_ENABLED");
    options.raw = enabled("RAW_ENABLED");
    options.format = SCENE_FORMAT_PROTO_1;
    return options;
}

}  // namespace

ProviderScene::ProviderScene(sdbus::IConnection& connection, std::string serviceName,
                             std::string objectPath, channel_handler_t* handler,
                             bool requestNameNow)
    : DBus(handler),
      AdaptorInterfaces(connection, sdbus_compat::ObjectPath(std::move(objectPath))),
      connection_(connection),
      serviceName_(std::move(serviceName)),
      classificationClient_(sdbus::createProxy(connection,
                                               sdbus_compat::ServiceName(WELL_KNOWN_NAME),
                                               sdbus_compat::ObjectPath(WELL_KNOWN_PATH))),
      uniqueName_(connection.getUniqueName()),
      statistics_(connection, std::string(getObject().getObjectPath()) + "/Statistics", handler) {
    registerAdaptor();
    if (requestNameNow) {
        requestName();
    }
}

ProviderScene::~ProviderScene() {
    try {
        if (nameRequested_) {
            connection_.releaseName(sdbus_compat::ServiceName(serviceName_));
        }
    } catch (const sdbus::Error&) {
        // The name may never have been granted; nothing is left to release.
    }
    unregisterAdaptor();
}

void ProviderScene::requestName() {
    if (nameRequested_) {
        return;
    }
    nameRequested_ = true;
    connection_.requestName(sdbus_compat::ServiceName(serviceName_));
}

void ProviderScene::checkCaller() {
    check_authorization_permo(sdbus_compat::current_message(getObject()));
}

std::string ProviderScene::currentSender() {
    return sdbus_compat::text(sdbus_compat::current_message(getObject()).getSender());
}

std::tuple<sdbus::UnixFd, int32_t> ProviderScene::SubscribeSocket(
    const int32_t& dataformat, const int32_t& channel,
    const std::map<std::string, bool>& feature_parameters) {
    return guarded([&] {
        checkCaller();
        if (dataformat != SCENE_FORMAT_PROTO_1) {
            throw sdbus_compat::error("org.freedesktop.DBus.Error.InvalidArgs",
                                      "Invalid data format");
        }
        subscription_options_t options = options_from_features(feature_parameters);
        pid_t pid = sdbus_compat::current_message(getObject()).getCredsPid();
        unique_fd subscriber_fd(-1);
        int session_id = -1;
        int status = channel_handler_add_session(*handler_, channel, static_cast<unsigned>(pid),
                                                 options, subscriber_fd, session_id);
        std::optional<sdbus::UnixFd> handle;
        if (status >= 0 && subscriber_fd && session_id >= 0) {
            handle = sdbus_compat::duplicate_fd(subscriber_fd.get());
        }
        if (!handle) {
            throw sdbus_compat::error("org.freedesktop.DBus.Error.Failed",
                                      "Error subscribing channel");
        }
        rememberSessionOwner(session_id);
        // Our own copy closes here; the reply's copy closes once it is sent.
        return std::tuple<sdbus::UnixFd, int32_t>(std::move(*handle), session_id);
    });
}

void ProviderScene::UnsubscribeSocket(const int32_t& session) {
    guarded([&] {
        checkCaller();
        if (session < 0) {
            return;
        }
        checkSessionOwner(session);
        if (channel_handler_remove_session(*handler_, session) < 0) {
            throw sdbus_compat::error("com.tessel.RadarSceneProvider1.Error.SessionNotFound",
                                      "Session does not exist");
        }
        sessionOwners_.erase(session);
    });
}

int32_t ProviderScene::GetNumberOfChannels() {
    return guarded([&] {
        checkCaller();
        return 1;
    });
}

std::vector<int32_t> ProviderScene::GetSupportedChannels() {
    return guarded([&] {
        std::lock_guard lock(mutex_);
        checkCaller();
        return std::vector<int32_t>{supportedChannel_};
    });
}

void ProviderScene::GetObjectClassifications(sdbus::Result<std::map<int32_t, std::string>>&& result,
                                             int32_t channel) {
    guarded([&] {
        std::lock_guard lock(mutex_);
        checkCaller();
        // Our own forwarded question, answered by whoever owns the well-known
        // name: when that is this provider, forwarding it again would chain
        // calls for ever, so it has no classes to offer.
        if (!classifications.empty() || currentSender() == uniqueName_) {
            result.returnResults(classifications);
            return;
        }
        // The answer comes back through the event loop, which serves other
        // callers meanwhile; only this caller waits for it.
        auto pending =
            std::make_shared<sdbus::Result<std::map<int32_t, std::string>>>(std::move(result));
        (void)classificationClient_->callMethodAsync("GetObjectClassifications")
            .onInterface(WELL_KNOWN_INTERFACE)
            .withArguments(channel)
            .uponReplyInvoke([pending](sdbus_compat::async_error error,
                                       const std::map<int32_t, std::string>& classes) {
                if (error) {
                    pending->returnError(*error);
                } else {
                    pending->returnResults(classes);
                }
            });
    });
}

void ProviderScene::checkSessionOwner(int32_t session) {
    auto owner = sessionOwners_.find(session);
    if (owner == sessionOwners_.end() || owner->second == currentSender() ||
        sdbus_compat::current_message(getObject()).getCredsEuid() == 0) {
        return;
    }
    throw sdbus_compat::error(
        "org.freedesktop.DBus.Error.AccessDenied",
        "Session " + std::to_string(session) + " belongs to another subscriber");
}

void ProviderScene::rememberSessionOwner(int32_t session) {
    // Sessions that broke and were removed by the handler leave stale
    // entries; they go here, so the map stays as small as the session table.
    std::erase_if(sessionOwners_, [this](const auto& entry) {
        return !channel_handler_has_session(*handler_, entry.first);
    });
    sessionOwners_[session] = currentSender();
}

}  // namespace API::SdBusCpp
