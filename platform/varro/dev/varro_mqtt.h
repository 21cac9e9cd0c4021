#pragma once

#include <tessel_os_varro/varro.h>

#include <memory>
#include <string>

namespace tessel_os_varro {

// A broker client over MQTT for the broker at `url` (mqtt://host[:port] or
// mqtts://...); null, after a log line, for an address it cannot use.
std::unique_ptr<Client> create_mqtt_client(const std::string& name, const std::string& url);

}  // namespace tessel_os_varro
