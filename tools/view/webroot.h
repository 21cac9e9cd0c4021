#pragma once

// The page's files under the web root, as HTTP serves them: "/" is
// index.html, names stay inside the root, and each file has its type.

#include <string>

// Reads the file that `path` (a request's path) names into `body` and its
// media type into `type`: 200, or 404 when the root holds no such file.
unsigned web_root_file(const std::string& root, const std::string& path, std::string& body,
                       std::string& type);
