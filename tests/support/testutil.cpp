#include "support/testutil.h"

#include <google/protobuf/unknown_field_set.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
                const std::function<void()>& step) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        if (step) {
            step();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return true;
}

StderrCapture::StderrCapture() {
    char path[] = "/tmp/radarscene-log-XXXXXX";
    int fd = mkstemp(path);
    path_ = path;
    saved_fd_ = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

StderrCapture::~StderrCapture() {
    dup2(saved_fd_, STDERR_FILENO);
    close(saved_fd_);
    unlink(path_.c_str());
}

std::string StderrCapture::text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int StderrCapture::count(const std::string& needle) const {
    std::string all = text();
    int n = 0;
    for (size_t pos = all.find(needle); pos != std::string::npos;
         pos = all.find(needle, pos + 1)) {
        ++n;
    }
    return n;
}

std::string wire_fields(const std::string& bytes) {
    google::protobuf::UnknownFieldSet fields;
    fields.ParseFromString(bytes);
    std::string out;
    for (int i = 0; i < fields.field_count(); ++i) {
        out += (out.empty() ? "" : ",") + std::to_string(fields.field(i).number());
    }
    return out;
}

std::string wire_submessage(const std::string& bytes, int number, int index) {
    google::protobuf::UnknownFieldSet fields;
    fields.ParseFromString(bytes);
    for (int i = 0; i < fields.field_count(); ++i) {
        const auto& field = fields.field(i);
        if (field.number() == number &&
            field.type() == google::protobuf::UnknownField::TYPE_LENGTH_DELIMITED &&
            index-- == 0) {
            return field.length_delimited();
        }
    }
    return "";
}
