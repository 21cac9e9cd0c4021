#pragma once

#include <tessel_os_varro/varro.h>

#include <memory>
#include <string>

namespace tessel_os_varro {

// A broker client over MQTT for the broker at `url` (mqtt://host[:port] or
// mqtts://...). Where the URL or the other settings cannot be used, the
// client's Connect says why and its items are dropped and counted.
std::unique_ptr<Client> create_mqtt_client(const std::string& name, const std::string& url);

}  // namespace tessel_os_varro
