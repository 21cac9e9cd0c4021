#include "support/testbus.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

TestBus::TestBus() {
    char dir_template[] = "/tmp/radarscene-bus-XXXXXX";
    if (!mkdtemp(dir_template)) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = dir_template;
    chmod(dir_.c_str(), 0755);
    std::stringstream text;
    text << std::ifstream(RADARSCENE_BUS_CONFIG_TEMPLATE).rdbuf();
    std::string config = text.str();
    config.replace(config.find("@DIR@"), 5, dir_);
    std::string config_path = dir_ + "/bus.conf";
    std::ofstream(config_path) << config;

    int pipe_fds[2];
    if (pipe(pipe_fds) < 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(pipe_fds[0]);
        std::string config_arg = "--config-file=" + config_path;
        std::string print_arg = "--print-address=" + std::to_string(pipe_fds[1]);
        execlp("dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--nopidfile",
               print_arg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipe_fds[1]);
    char buffer[512];
    std::string line;
    ssize_t n;
    while (line.find('\n') == std::string::npos &&
           (n = read(pipe_fds[0], buffer, sizeof(buffer))) > 0) {
        line.append(buffer, static_cast<size_t>(n));
    }
    close(pipe_fds[0]);
    if (line.find('\n') == std::string::npos) {
        throw std::runtime_error("dbus-daemon did not start");
    }
    address_ = line.substr(0, line.find('\n'));
    chmod((dir_ + "/bus").c_str(), 0777);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

TestBus::~TestBus() {
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    unlink((dir_ + "/bus").c_str());
    unlink((dir_ + "/bus.conf").c_str());
    rmdir(dir_.c_str());
}
