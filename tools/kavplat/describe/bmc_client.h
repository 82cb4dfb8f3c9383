/* Asks a service processor by IPMI, through FreeIPMI's library. */
#ifndef KAVPLAT_DESCRIBE_BMC_CLIENT_H
#define KAVPLAT_DESCRIBE_BMC_CLIENT_H

#include "tools/kavplat/describe/bmc.h"

#include <memory>
#include <string>

namespace kavplat_describe
{

struct bmc_target {
    bool wanted = false;
    std::string host;          /* with ":" and a port; empty: this machine's own, by its driver */
    std::string user;          /* of a host */
    std::string password_file; /* of a host; the first line counts */
    std::string directory;     /* absolute: files of the sensors' values are written here */
    bool believed = true;      /* false: nobody reads again, so no value is to be believed */
};

/* Whether this program can ask at all. */
bool has_bmc_client();

/* Whether the kernel has a driver of a service processor of this machine, and lets this
 * user ask it. */
bool has_bmc();
bool may_ask_bmc();

/* Not to be shared by threads. Each call may take as long as the service processor likes,
 * so a process of its own is a good place: see bmc_reader.h. */
class bmc_client
{
  public:
    explicit bmc_client(bmc_target target);
    ~bmc_client();
    bmc_client(const bmc_client &) = delete;
    bmc_client &operator=(const bmc_client &) = delete;

    /* Reads every sensor and writes its files; at the first call, in ten minutes again,
     * and when something was plugged or pulled, what there is to be read before. False
     * with the reason when it does not answer: no value is to be believed then. */
    bool look(std::string &why);

    const bmc_inventory &inventory() const { return inventory_; }

  private:
    struct session;

    bmc_target target_;
    bmc_inventory inventory_;
    std::unique_ptr<session> session_; /* null: it is not connected */
};

} // namespace kavplat_describe

#endif
