// The page's files under the web root.
#include "webroot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

namespace {

// The page's files are small; anything bigger is not one of them.
constexpr off_t MAX_FILE = 4 * 1024 * 1024;

// Names of letters, digits, '.', '-' and '_', none starting with '.', in
// folders of such names: nothing that leads out of the root or needs
// decoding.
bool plain_path(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.back() == '/') {
        return false;
    }
    for (size_t at = 1; at < path.size(); ++at) {
        char c = path[at];
        bool start = path[at - 1] == '/';
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!(letter || c == '-' || c == '_' || (c == '.' && !start) || (c == '/' && !start))) {
            return false;
        }
    }
    return true;
}

std::string media_type(const std::string& path) {
    static const std::map<std::string, std::string> TYPES{{"html", "text/html; charset=utf-8"},
                                                          {"js", "text/javascript; charset=utf-8"},
                                                          {"css", "text/css; charset=utf-8"},
                                                          {"json", "application/json"},
                                                          {"svg", "image/svg+xml"},
                                                          {"png", "image/png"},
                                                          {"ico", "image/x-icon"}};
    size_t dot = path.rfind('.');
    auto it = dot == std::string::npos ? TYPES.end() : TYPES.find(path.substr(dot + 1));
    return it == TYPES.end() ? "application/octet-stream" : it->second;
}

}  // namespace

unsigned web_root_file(const std::string& root, const std::string& path, std::string& body,
                       std::string& type) {
    std::string name = path == "/" ? "/index.html" : path;
    if (!plain_path(name)) {
        return 404;
    }
    int fd = open((root + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info {};
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > MAX_FILE) {
        if (fd >= 0) {
            close(fd);
        }
        return 404;
    }
    body.resize(static_cast<size_t>(info.st_size));
    size_t got = 0;
    for (ssize_t n = 1; got < body.size() && n > 0; got += n > 0 ? static_cast<size_t>(n) : 0) {
        n = read(fd, body.data() + got, body.size() - got);
    }
    close(fd);
    body.resize(got);
    type = media_type(name);
    return 200;
}
