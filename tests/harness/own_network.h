/* A network that no other test sees. */
#ifndef KAVPLAT_TESTS_HARNESS_OWN_NETWORK_H
#define KAVPLAT_TESTS_HARNESS_OWN_NETWORK_H

#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

/* Interfaces in a network of the test's own, and of what it starts. False where there can
 * be none. */
class own_network
{
  public:
    own_network()
    {
        if (::unshare(CLONE_NEWNET) != 0) {
            return;
        }
        socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq loopback = {};
        std::strcpy(loopback.ifr_name, "lo");
        loopback.ifr_flags = IFF_UP | IFF_RUNNING;
        is_there_ = ::ioctl(socket_, SIOCSIFFLAGS, &loopback) == 0;
    }
    ~own_network() { ::close(socket_); }
    own_network(const own_network &) = delete;
    own_network &operator=(const own_network &) = delete;

    /* A bridge without members is an interface that one call makes. */
    bool add(const char *name) const { return is_there_ && ::ioctl(socket_, 0x89a0, name) == 0; }
    bool remove(const char *name) const { return ::ioctl(socket_, 0x89a1, name) == 0; }
    bool rename(const char *from, const char *to) const
    {
        ifreq request = {};
        std::strcpy(request.ifr_name, from);
        std::strcpy(request.ifr_newname, to);
        return ::ioctl(socket_, SIOCSIFNAME, &request) == 0;
    }

  private:
    int socket_ = -1;
    bool is_there_ = false;
};

#endif
