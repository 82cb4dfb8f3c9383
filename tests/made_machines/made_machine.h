/*
 * A machine made up for a test: what its kernel would show below /sys, /proc and /run,
 * in a directory, and beside it the list of what was built, which says what a
 * description of it has to say.
 */
#ifndef KAVPLAT_TESTS_MADE_MACHINES_MADE_MACHINE_H
#define KAVPLAT_TESTS_MADE_MACHINES_MADE_MACHINE_H

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kavplat_describe_test
{

struct built {
    std::string type;
    std::string serial{};
    std::string model{};
    std::string revision{};
    std::optional<double> reading{}; /* of a sensor or an indicator, as a description
                                        has it: 2 is true and lit */
    std::map<std::string, double> limits{};
    std::string maker{}; /* empty: whatever it is */
    std::string interface {
    }; /* of a port, as the kernel calls it */
};

using texts = std::vector<std::pair<std::string, std::string>>;

class made_machine
{
  public:
    /* Where the kernel counts, another one met everything the other way round. */
    enum class order { forwards, backwards };

    explicit made_machine(order of_the_kernel = order::forwards);
    ~made_machine();
    made_machine(const made_machine &) = delete;
    made_machine &operator=(const made_machine &) = delete;

    /* Paths are those on the machine. */
    void file(const std::string &path, const std::string &text) const;
    void directory(const std::string &path) const;
    void link(const std::string &path, const std::string &target) const;
    std::filesystem::path on_disk(const std::string &path) const { return root_ / path.substr(1); }

    /* What is called such as these is numbered by the kernel. */
    std::string counted(const std::string &stem);

    /* Each gives the path of the device. */
    std::string pci(const std::string &root_bus, const std::string &number,
                    const std::string &type);
    std::string below(const std::string &bridge, const std::string &number,
                      const std::string &type);
    std::string first_below(const std::string &bridge) const;
    /* as: what it is in the description; empty: as the kernel alone knows it. */
    void slot(const std::string &name, const std::string &device, bool hot_plug,
              const std::string &as = "", const std::string &type = "pcie-slot");

    std::string nvme(const std::string &device, const built &drive);
    std::string sata(const std::string &controller, unsigned port, const built &drive);
    std::string scsi(const std::string &host, const std::string &link, unsigned target,
                     const built &drive, const texts &more = {});
    /* The directory of the shelf; bays are put into it. */
    std::string shelf(const std::string &host, unsigned target, const std::string &id);
    void bay(const std::string &shelf, unsigned slot, const std::string &drive, int fault,
             int locate) const;
    void hwmon(const std::string &device, const std::string &chip, const texts &files);
    /* What the kernel calls it. */
    std::string port(const std::string &device, unsigned number, const std::string &address);
    void processors(unsigned packages, unsigned cores, const std::string &model) const;
    std::string supply(const std::string &name, const texts &files) const;

    /* The list: what describes it, under its name. */
    void expect(const std::string &name, built it) { list_.emplace(name, std::move(it)); }
    const std::map<std::string, built> &list() const { return list_; }
    const std::filesystem::path &root() const { return root_; }

  private:
    std::string add_pci(const std::string &path, const std::string &type) const;
    std::string block(const std::string &device, const built &drive, const texts &more);

    const order order_;
    std::filesystem::path root_;
    std::map<std::string, unsigned> counters_;
    std::map<std::string, std::string> buses_; /* below bridges */
    std::map<std::string, built> list_;
};

} // namespace kavplat_describe_test

#endif
