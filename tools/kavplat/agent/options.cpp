#include "options.h"

#include <CLI/CLI.hpp>

namespace kavplat_agent
{

void add_to(CLI::App &command, address &into)
{
    struct known {
        const char *name;
        const char *value;
        const char *purpose;
    };
    static constexpr known options[] = {
        {"-v", "1|2c|3", "Version of SNMP"},
        {"-c", "COMMUNITY", "Community of versions 1 and 2c"},
        {"-u", "USER", "User of version 3"},
        {"-l", "LEVEL", "noAuthNoPriv, authNoPriv or authPriv"},
        {"-a", "PROTOCOL", "How the user is authenticated, such as SHA-256"},
        {"-A", "PASSPHRASE", "His passphrase for that"},
        {"-x", "PROTOCOL", "How is encrypted, such as AES"},
        {"-X", "PASSPHRASE", "His passphrase for that"},
        {"-n", "CONTEXT", "Context of version 3"},
        {"-e", "ENGINE-ID", "Security engine"},
        {"-E", "ENGINE-ID", "Context engine"},
        {"-Z", "BOOTS,TIME", "Boots and time of the engine"},
        {"-t", "SECONDS", "How long one try waits for an answer"},
        {"-r", "NUMBER", "How often is tried again"},
        {"-m", "MODULES", "MIB modules to read; none are needed"},
        {"-M", "DIRECTORIES", "Where they are"},
        {"-D", "TOKENS", "What net-snmp's library shall trace"},
        {"-Y", "NAME=VALUE", "A directive of snmp.conf"},
    };
    for (const known &each : options) {
        command
            .add_option_function<std::string>(
                each.name,
                [&into, name = each.name](const std::string &given) {
                    into.options.insert(into.options.end(), {name, given});
                },
                each.purpose)
            ->type_name(each.value)
            ->group("Options of net-snmp's tools, as in man snmpcmd; snmp.conf has their defaults");
    }
}

} // namespace kavplat_agent
