// SPDX-License-Identifier: Apache-2.0
#include "support/support.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

std::string buildDirectory() {
    return TEST_BUILD;
}
std::string sourceDirectory() {
    return TEST_SOURCE;
}

std::string readFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string &path, const std::string &bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        std::perror(path.c_str());
        std::abort();
    }
}

bool exists(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

void makeDirectory(const std::string &path) {
    std::filesystem::create_directories(path);
}

std::vector<std::string> listFiles(const std::string &dir) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> result;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        result.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return result;
}

bool useLocale(const char *name) {
    setenv("LOCPATH", TEST_LOCALES, 1);
    setenv("LC_ALL", name, 1);
    return std::setlocale(LC_ALL, name) != nullptr;
}

std::string captured(int descriptor, const std::function<void()> &body) {
    FILE *stream = descriptor == 1 ? stdout : stderr;
    std::fflush(stream);
    char path[] = "/tmp/qdul-captured.XXXXXX";
    const int file = mkstemp(path);
    const int saved = dup(descriptor);
    dup2(file, descriptor);
    body();
    std::fflush(stream);
    dup2(saved, descriptor);
    close(saved);
    close(file);
    std::string text = readFile(path);
    unlink(path);
    return text;
}

namespace {

int statusOf(int waited) {
    return WIFSIGNALED(waited) ? 128 + WTERMSIG(waited) : WEXITSTATUS(waited);
}

} // namespace

int inChild(const std::function<int()> &body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        _exit(body());
    int waited = 0;
    while (waitpid(child, &waited, 0) == -1 && errno == EINTR) {
    }
    return statusOf(waited);
}

namespace {

bool becomeOrdinaryUser() {
    constexpr uid_t NOBODY = 65534;
    if (geteuid() != 0)
        return true;
    bool done = chown(".", NOBODY, NOBODY) == 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator("."))
        done = lchown(entry.path().c_str(), NOBODY, NOBODY) == 0 && done;
    return done && setresgid(NOBODY, NOBODY, NOBODY) == 0 && setresuid(NOBODY, NOBODY, NOBODY) == 0;
}

} // namespace

bool asOrdinaryUser(const std::function<void()> &body) {
    return inChild([&] {
               EXPECT_TRUE(becomeOrdinaryUser());
               body();
               std::fflush(nullptr);
               return testing::Test::HasFailure() ? 1 : 0;
           }) == 0;
}

Finished run(const std::vector<std::string> &command, const std::string &input) {
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        std::abort();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        std::vector<char *> arguments;
        for (const std::string &word : command)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        std::perror(arguments[0]);
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    Finished finished{0, "", ""};
    size_t sent = 0;
    bool outOpen = true;
    bool errOpen = true;
    bool inOpen = true;
    while (outOpen || errOpen) {
        if (inOpen && sent == input.size()) {
            close(in[1]);
            inOpen = false;
        }
        pollfd polled[3] = {{outOpen ? out[0] : -1, POLLIN, 0},
                            {errOpen ? err[0] : -1, POLLIN, 0},
                            {inOpen ? in[1] : -1, POLLOUT, 0}};
        poll(polled, 3, -1);
        char buffer[65536];
        if (polled[0].revents != 0) {
            const ssize_t count = read(out[0], buffer, sizeof buffer);
            if (count > 0)
                finished.out.append(buffer, static_cast<size_t>(count));
            else
                outOpen = false;
        }
        if (polled[1].revents != 0) {
            const ssize_t count = read(err[0], buffer, sizeof buffer);
            if (count > 0)
                finished.err.append(buffer, static_cast<size_t>(count));
            else
                errOpen = false;
        }
        if (polled[2].revents != 0) {
            const ssize_t count = write(in[1], input.data() + sent, input.size() - sent);
            if (count > 0) {
                sent += static_cast<size_t>(count);
            } else { // the program does not read on
                close(in[1]);
                inOpen = false;
            }
        }
    }
    if (inOpen)
        close(in[1]);
    close(out[0]);
    close(err[0]);
    int waited = 0;
    while (waitpid(child, &waited, 0) == -1 && errno == EINTR) {
    }
    finished.status = statusOf(waited);
    return finished;
}

size_t openDescriptors() {
    return listFiles("/proc/self/fd").size();
}

} // namespace support
