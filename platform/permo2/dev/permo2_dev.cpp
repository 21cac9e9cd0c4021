// Development stand-in for the device's access-policy library.
//
// With no policy file the user running the process and root hold every
// permission. A policy file named by PERMO2_DEV_POLICY replaces that default;
// each line is "<user or @group> <permission pattern>" (fnmatch syntax,
// '#' starts a comment), for example:
//
//     @radar com.tessel.RadarSceneProvider1.Scene.*
//     alice  com.tessel.RadarSceneProvider1.Scene.Get*

#include <permo2/permo2.h>

#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct rule {
    std::string subject;  // user name, or @group
    std::string pattern;
};

std::mutex policy_mutex;
std::vector<rule> rules;
bool initialised = false;

void fill(permo2_error* error, int code, const std::string& message) {
    if (error) {
        error->code = code;
        snprintf(error->message, sizeof(error->message), "%s", message.c_str());
    }
}

std::vector<rule> default_rules() {
    std::vector<rule> defaults{{"root", "*"}};
    if (passwd* pw = getpwuid(geteuid()); pw && pw->pw_name) {
        defaults.push_back({pw->pw_name, "*"});
    }
    return defaults;
}

bool load_rules(const char* path, std::vector<rule>& out) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        line = line.substr(0, line.find('#'));
        std::istringstream fields(line);
        rule r;
        if (fields >> r.subject >> r.pattern) {
            out.push_back(r);
        }
    }
    return true;
}

bool in_group(const std::string& user, const std::string& group_name) {
    passwd* pw = getpwnam(user.c_str());
    if (!pw) {
        return false;
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(user.c_str(), pw->pw_gid, groups.data(), &count) < 0) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        struct group* g = getgrgid(groups[static_cast<size_t>(i)]);
        if (g && group_name == g->gr_name) {
            return true;
        }
    }
    return false;
}

bool subject_matches(const std::string& subject, const std::string& user) {
    if (!subject.empty() && subject[0] == '@') {
        return in_group(user, subject.substr(1));
    }
    return subject == user;
}

}  // namespace

extern "C" bool permo2_init(permo2_error* error, int) {
    std::lock_guard lock(policy_mutex);
    std::vector<rule> loaded;
    if (const char* path = getenv("PERMO2_DEV_POLICY")) {
        if (!load_rules(path, loaded)) {
            fill(error, 1, std::string("cannot read policy file ") + path);
            return false;
        }
    } else {
        loaded = default_rules();
    }
    rules = std::move(loaded);
    initialised = true;
    return true;
}

extern "C" bool permo2_check_username(const char* username, const char* permission,
                                      permo2_error* error) {
    std::lock_guard lock(policy_mutex);
    if (!initialised) {
        fill(error, 1, "permo2 is not initialised");
        return false;
    }
    for (const rule& r : rules) {
        if (subject_matches(r.subject, username) &&
            fnmatch(r.pattern.c_str(), permission, 0) == 0) {
            return true;
        }
    }
    fill(error, PERMO2_ERROR_NOT_AUTHORIZED,
         std::string("User ") + username + " is not authorized for " + permission);
    return false;
}

extern "C" void permo2_release(void) {
    std::lock_guard lock(policy_mutex);
    rules.clear();
    initialised = false;
}
