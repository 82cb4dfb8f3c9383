#include "described/format/description.h"

namespace described_platform
{

const component *find_component(const description &all, std::string_view name)
{
    const auto found = all.by_name.find(name);
    return found == all.by_name.end() ? nullptr : &all.components[found->second];
}

const sensor *find_sensor(const description &all, std::string_view name)
{
    if (const component *found = find_component(all, name); found != nullptr) {
        return found->sensor.get();
    }
    const auto found = all.by_record_name.find(name);
    return found == all.by_record_name.end() ? nullptr : all.components[found->second].sensor.get();
}

std::string_view parent_name(std::string_view name)
{
    const size_t cut = name.rfind('/');
    return cut == std::string_view::npos ? std::string_view() : name.substr(0, cut);
}

} // namespace described_platform
