#pragma once

namespace sdbus {
class Message;
}

// Lets the call proceed when the access policy grants the calling user the
// permission "<interface>.<member>"; otherwise throws an AccessDenied
// sdbus::Error and logs why.
void check_authorization_permo(const sdbus::Message& message);
