/* The names of libpci's database. */
#ifndef KAVPLAT_DESCRIBE_PCI_NAMES_H
#define KAVPLAT_DESCRIBE_PCI_NAMES_H

#include <memory>
#include <string>

struct pci_access;

namespace kavplat_describe
{

class pci_names
{
  public:
    pci_names();

    /* Empty where the database does not know the number, or is not there. */
    std::string vendor(unsigned vendor) const;
    std::string device(unsigned vendor, unsigned device) const;
    std::string subsystem(unsigned vendor, unsigned device, unsigned subsystem_vendor,
                          unsigned subsystem_device) const;

  private:
    struct cleaner {
        void operator()(pci_access *access) const;
    };
    std::unique_ptr<pci_access, cleaner> access_;
};

} // namespace kavplat_describe

#endif
