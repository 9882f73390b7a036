// The UIO side of the export: mapping, the poll loop, and the kernel's wake-ups both ways.
#include "uio_server.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kelsim {

UioServer::~UioServer() {
    close();
}

void UioServer::answer(Device &device, bool wakeAnyway) {
    const RingProgress progress = drainRing(device.memory, device.size, device.handler);
    if (progress.damaged) {
        fprintf(stderr, "kelsim export: %s: a ring entry points outside the ring; it is left unanswered\n",
                device.path.c_str());
    }
    if (progress.commands > 0 || wakeAnyway) {
        // Any 4 bytes: the kernel then collects the completed entries.
        const uint32_t wake = 1;
        if (write(device.fd, &wake, sizeof wake) != static_cast<ssize_t>(sizeof wake)) {
            fprintf(stderr, "kelsim export: %s: %s\n", device.path.c_str(), strerror(errno));
        }
    }
}

bool UioServer::add(const std::string &devicePath, size_t mapSize, RingHandler handler, std::string *error) {
    Device device;
    device.path = devicePath;
    device.size = mapSize;
    device.handler = std::move(handler);
    device.fd = open(devicePath.c_str(), O_RDWR | O_CLOEXEC);
    if (device.fd < 0) {
        *error = devicePath + ": " + strerror(errno);
        return false;
    }
    void *memory = mmap(nullptr, mapSize, PROT_READ | PROT_WRITE, MAP_SHARED, device.fd, 0);
    if (memory == MAP_FAILED) {
        *error = devicePath + ": cannot map " + std::to_string(mapSize) + " bytes: " + strerror(errno);
        ::close(device.fd);
        return false;
    }
    device.memory = static_cast<uint8_t *>(memory);
    // A killed server may have answered entries without telling the kernel: tell it now.
    answer(device, true);
    devices_.push_back(std::move(device));
    return true;
}

bool UioServer::start(std::string *error) {
    if (pipe2(stopPipe_, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + strerror(errno);
        return false;
    }
    sigset_t signals, previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    thread_ = std::thread([this] { serve(); });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return true;
}

void UioServer::serve() {
    std::vector<pollfd> watched;
    for (const Device &device : devices_) {
        watched.push_back({device.fd, POLLIN, 0});
    }
    watched.push_back({stopPipe_[0], POLLIN, 0});
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            fprintf(stderr, "kelsim export: poll: %s\n", strerror(errno));
            return;
        }
        if (watched.back().revents != 0) {
            return;
        }
        for (size_t i = 0; i < devices_.size(); i++) {
            if (watched[i].revents == 0) {
                continue;
            }
            uint32_t interrupts = 0;
            if (read(devices_[i].fd, &interrupts, sizeof interrupts) < 0 && errno != EAGAIN && errno != EINTR) {
                fprintf(stderr, "kelsim export: %s: %s\n", devices_[i].path.c_str(), strerror(errno));
                watched[i].fd = -1; // poll() skips it from now on
                continue;
            }
            answer(devices_[i], false);
        }
    }
}

void UioServer::stop() {
    if (thread_.joinable()) {
        const char byte = 0;
        if (write(stopPipe_[1], &byte, 1) < 0) {
            fprintf(stderr, "kelsim export: cannot stop the ring server: %s\n", strerror(errno));
        }
        thread_.join();
    }
    for (int &fd : stopPipe_) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
}

void UioServer::close() {
    stop();
    for (Device &device : devices_) {
        munmap(device.memory, device.size);
        ::close(device.fd);
    }
    devices_.clear();
}

} // namespace kelsim
