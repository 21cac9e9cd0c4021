#pragma once

#include <tessel_os_varro/varro.h>

#include <string>
#include <vector>

// Test double of the broker client: records every call as one line of text
// and fails any operation on request.
namespace varro_fake {

struct written_item {
    std::string topic;
    std::string json;
};

void reset();
// The next `times` calls of `operation` ("Connect", "GetTopic", "CreateTopic",
// "CreateTopicDataWriter", "Initialize", "CreateInstance", "FromJson",
// "WriteData") fail with `code` and `message`; "Create" makes Client::Create
// return no client.
void fail(const std::string& operation, tessel_os_varro::ApiErrorCode code,
          const std::string& message, int times = 1);
// Topics that GetTopic finds without creating them.
void add_existing_topic(const std::string& name);
std::vector<std::string> calls();
std::vector<written_item> written();

}  // namespace varro_fake
