#include "tools/kavplat/describe/sources.h"

namespace kavplat_describe
{

void find_smbios(const tree &files, machine &into)
{
    into.product.model = files.text("/sys/class/dmi/id/product_name");
}

} // namespace kavplat_describe
