#include "watch/notices.h"

#include "kavdata/codes.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <iterator>

namespace kavplat
{

namespace
{

constexpr oid notification_name[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

constexpr oid ent_config_change[] = {1, 3, 6, 1, 2, 1, 47, 2, 0, 1};
constexpr oid ent_state_oper_enabled[] = {1, 3, 6, 1, 2, 1, 131, 0, 1};
constexpr oid ent_state_oper_disabled[] = {1, 3, 6, 1, 2, 1, 131, 0, 2};
#define KAV_NOTIFICATIONS 1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 2
constexpr oid severity_raised[] = {KAV_NOTIFICATIONS, 0, 1};
constexpr oid severity_cleared[] = {KAV_NOTIFICATIONS, 0, 2};

// Columns, whose instance is the entity's index.
constexpr oid entPhysicalName[] = {1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 7};
constexpr oid entPhySensorPrecision[] = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 3};
constexpr oid entPhySensorValue[] = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 4};
constexpr oid entPhySensorUnitsDisplay[] = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 6};
constexpr oid entStateAdmin_column[] = {1, 3, 6, 1, 2, 1, 131, 1, 1, 1, 2};
constexpr oid entStateAlarm_column[] = {1, 3, 6, 1, 2, 1, 131, 1, 1, 1, 5};

// Of no table: their only instance is 0.
constexpr uint32_t scalar = 0;
constexpr oid container_name[] = {KAV_NOTIFICATIONS, 1, 1};
constexpr oid severity_before[] = {KAV_NOTIFICATIONS, 1, 2};
constexpr oid severity_after[] = {KAV_NOTIFICATIONS, 1, 3};
constexpr oid limit[] = {KAV_NOTIFICATIONS, 1, 4};

// The varbinds of a notification behind sysUpTime.0, which the agent adds.
class notification
{
  public:
    template <size_t Length>
    explicit notification(const oid (&name)[Length])
    {
        add(notification_name, std::size(notification_name), ASN_OBJECT_ID, name, sizeof name);
    }
    ~notification() { snmp_free_varbind(varbinds_); }
    notification(const notification &) = delete;
    notification &operator=(const notification &) = delete;

    template <size_t Length>
    void number(const oid (&column)[Length], uint32_t index, int32_t value)
    {
        const long number = value;
        add_instance(column, index, ASN_INTEGER, &number, sizeof number);
    }
    template <size_t Length>
    void octets(const oid (&column)[Length], uint32_t index, const void *bytes, size_t length)
    {
        add_instance(column, index, ASN_OCTET_STR, bytes, length);
    }
    template <size_t Length>
    void text(const oid (&column)[Length], uint32_t index, const std::string &text)
    {
        octets(column, index, text.data(), text.size());
    }

    void send()
    {
        if (is_complete_) {
            send_v2trap(varbinds_);
        } else {
            snmp_log(LOG_ERR, "watch: no memory for a notification, one is lost\n");
        }
    }

  private:
    template <size_t Length>
    void add_instance(const oid (&column)[Length], uint32_t index, u_char type, const void *value,
                      size_t size)
    {
        oid name[Length + 1];
        std::copy(std::begin(column), std::end(column), name);
        name[Length] = index;
        add(name, std::size(name), type, value, size);
    }

    void add(const oid *name, size_t length, u_char type, const void *value, size_t size)
    {
        is_complete_ =
            snmp_varlist_add_variable(&varbinds_, name, length, type, value, size) != nullptr &&
            is_complete_;
    }

    netsnmp_variable_list *varbinds_ = nullptr;
    bool is_complete_ = true;
};

} // namespace

void send_notice(const severity_notice &notice)
{
    const bool is_cleared = notice.change.after == kavPlatEquipmentSeverity::cleared;
    notification n(is_cleared ? severity_cleared : severity_raised);
    n.text(entPhysicalName, notice.index, notice.name);
    n.text(container_name, scalar, notice.container);
    n.number(severity_before, scalar, notice.change.before);
    n.number(severity_after, scalar, notice.change.after);
    if (notice.reading) {
        n.number(entPhySensorValue, notice.index, notice.reading->value);
        n.number(entPhySensorPrecision, notice.index, notice.reading->precision);
        n.text(entPhySensorUnitsDisplay, notice.index, notice.reading->display);
        if (notice.reading->limit) {
            n.number(limit, scalar, *notice.reading->limit);
        }
    }
    n.send();
}

void send_notice(const oper_notice &notice)
{
    notification n(notice.is_enabled ? ent_state_oper_enabled : ent_state_oper_disabled);
    n.number(entStateAdmin_column, notice.index, notice.admin);
    n.octets(entStateAlarm_column, notice.index, &notice.alarm, sizeof notice.alarm);
    n.send();
}

void send_config_change()
{
    notification(ent_config_change).send();
}

} // namespace kavplat
