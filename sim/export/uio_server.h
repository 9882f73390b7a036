// Serves the command rings of the exported disks: each ring's UIO device mapped, one
// thread polling every device and answering what the kernel queued.
#pragma once

#include "tcmu_ring.h"

#include <string>
#include <thread>
#include <vector>

namespace kelsim {

class UioServer {
  public:
    UioServer() = default;
    ~UioServer();
    UioServer(const UioServer &) = delete;
    UioServer &operator=(const UioServer &) = delete;

    // Opens the UIO device (/dev/uioN), maps its ring of mapSize bytes and answers the
    // commands already queued from the mailbox's tail on (a read of the device wakes only
    // for later ones; a ring a killed export served carries on where it stopped).
    bool add(const std::string &devicePath, size_t mapSize, RingHandler handler, std::string *error);
    // Serves every device in a thread of its own until stop(); SIGINT and SIGTERM stay
    // with the caller's thread.
    bool start(std::string *error);
    void stop();
    // Stops, unmaps and closes every device.
    void close();

  private:
    struct Device {
        int fd = -1;
        uint8_t *memory = nullptr;
        size_t size = 0;
        std::string path;
        RingHandler handler;
    };
    void serve();
    static void answer(Device &device, bool wakeAnyway);

    std::vector<Device> devices_;
    int stopPipe_[2] = {-1, -1};
    std::thread thread_;
};

} // namespace kelsim
