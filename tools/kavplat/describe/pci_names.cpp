#include "tools/kavplat/describe/pci_names.h"

#ifdef KAVPLAT_HAS_LIBPCI

#include <cstdlib>

extern "C" {
#include <pci/pci.h>
}

namespace kavplat_describe
{
namespace
{

constexpr int longest = 256;

/* Such as of a database that is not there. */
void say_nothing(char *, ...) {}

/* Without memory; the library expects no return, and that of the function's type. */
__attribute__((noreturn)) void give_up(char *, ...)
{
    std::abort();
}

std::string as_text(const char *found)
{
    return found == nullptr ? "" : found;
}

} // namespace

pci_names::pci_names() : access_(::pci_alloc())
{
    /* Only names are asked for, nothing is probed; and no file of the user's is read.
     * The probing would have set what the library calls. */
    access_->id_lookup_mode = PCI_LOOKUP_NO_NUMBERS | PCI_LOOKUP_NO_HWDB; // which it leaks
    access_->error = give_up;
    access_->warning = say_nothing;
    access_->debug = say_nothing;
}

void pci_names::cleaner::operator()(pci_access *access) const
{
    ::pci_cleanup(access);
}

std::string pci_names::vendor(unsigned vendor) const
{
    char text[longest];
    return as_text(::pci_lookup_name(access_.get(), text, sizeof text, PCI_LOOKUP_VENDOR, vendor));
}

std::string pci_names::device(unsigned vendor, unsigned device) const
{
    char text[longest];
    return as_text(
        ::pci_lookup_name(access_.get(), text, sizeof text, PCI_LOOKUP_DEVICE, vendor, device));
}

std::string pci_names::subsystem(unsigned vendor, unsigned device, unsigned subsystem_vendor,
                                 unsigned subsystem_device) const
{
    char text[longest];
    return as_text(::pci_lookup_name(access_.get(), text, sizeof text,
                                     PCI_LOOKUP_SUBSYSTEM | PCI_LOOKUP_DEVICE, vendor, device,
                                     subsystem_vendor, subsystem_device));
}

} // namespace kavplat_describe

#else

namespace kavplat_describe
{

pci_names::pci_names() = default;

void pci_names::cleaner::operator()(pci_access *) const {}

std::string pci_names::vendor(unsigned) const
{
    return {};
}

std::string pci_names::device(unsigned, unsigned) const
{
    return {};
}

std::string pci_names::subsystem(unsigned, unsigned, unsigned, unsigned) const
{
    return {};
}

} // namespace kavplat_describe

#endif
