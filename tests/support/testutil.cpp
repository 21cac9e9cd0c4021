#include "support/testutil.h"

#include <google/protobuf/unknown_field_set.h>

#include <arpa/inet.h>
#include <poll.h>
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
    for (size_t pos = all.find(needle); pos != std::string::npos; pos = all.find(needle, pos + 1)) {
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
            field.type() == google::protobuf::UnknownField::TYPE_LENGTH_DELIMITED && index-- == 0) {
            return field.length_delimited();
        }
    }
    return "";
}

namespace {

bool read_exactly(int fd, char* out, size_t size, std::chrono::milliseconds timeout) {
    size_t done = 0;
    while (done < size) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) {
            return false;
        }
        ssize_t n = read(fd, out + done, size - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool read_record(int fd, std::string& payload, std::chrono::milliseconds timeout) {
    uint32_t header;
    if (!read_exactly(fd, reinterpret_cast<char*>(&header), sizeof(header), timeout)) {
        return false;
    }
    uint32_t length = ntohl(header);
    if (length < sizeof(header)) {
        return false;
    }
    payload.resize(length - sizeof(header));
    return read_exactly(fd, payload.data(), payload.size(), timeout);
}

bool nothing_to_read(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 0;
}
