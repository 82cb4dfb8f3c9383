// Live states of equipment: whether it may be removed, whether it is enabled, and the
// power of what can hold something.
#include "kavdata/codes.h"
#include "kavdata/live.h"

namespace kavplat
{

namespace admin = kavPlatEquipmentAdminState;
namespace oper = kavPlatEquipmentOperState;
namespace holder_power = kavPlatHolderPowerState;

call_answer ask_enable_state(const char *name)
{
    call_answer answer = {0, CAPI_ENABLED};
    char reason[20];
    answer.status = capi_get_enable_disable_state(name, &answer.value, reason, sizeof reason);
    return answer;
}

call_answer ask_power_state(const char *name)
{
    call_answer answer = {};
    answer.status = capi_get_power_state(0, name, &answer.value);
    return answer;
}

admin_answer ask_admin_state(const char *name, const between_calls &between)
{
    admin_answer answer = {};
    answer.ready.status = capi_get_rdy2rm_status(0, name, &answer.ready.value);
    if (answer.ready.status != 0) {
        between();
        answer.power = ask_power_state(name);
    }
    return answer;
}

void apply_admin_state(const char *caller, phys_entry &row, const admin_answer &answer,
                       uint32_t now)
{
    row.adminTime = now;
    if (answer.ready.status == 0) {
        row.equipmentCol1 =
            answer.ready.value == CAPI_NOT_READY_TO_REMOVE ? admin::unlocked : admin::locked;
    } else if (!has_failed(caller, polled_call::power_state, row, answer.power.status)) {
        // That one of the two is not known is no failure.
        row.equipmentCol1 = answer.power.value == CAPI_POWER_ON              ? admin::unlocked
                            : answer.power.value == CAPI_POWER_SHUTTING_DOWN ? admin::shuttingDown
                                                                             : admin::locked;
    }
}

void apply_enable_state(const char *caller, phys_entry &row, const call_answer &answer,
                        uint32_t now)
{
    row.look.state_time = now;
    row.look.disabled = 0;
    if (!has_failed(caller, polled_call::enable_state, row, answer.status)) {
        row.look.disabled = answer.value == CAPI_DISABLED;
        row.lastReadTime = now;
        row.equipmentCol2 = answer.value == CAPI_DISABLED ? oper::disabled : oper::enabled;
    }
}

void apply_power_state(const char *caller, phys_entry &row, const call_answer &answer, uint32_t now)
{
    row.powerTime = now;
    if (has_failed(caller, polled_call::power_state, row, answer.status)) {
        return;
    }
    switch (answer.value) {
    case CAPI_POWER_OFF:
        row.holderCol4 = holder_power::off;
        break;
    case CAPI_POWER_ON:
        row.holderCol4 = holder_power::on;
        break;
    case CAPI_POWER_STANDBY:
    case CAPI_POWER_SHUTTING_DOWN:
        row.holderCol4 = holder_power::other;
        break;
    default:
        row.holderCol4 = holder_power::unknown;
        break;
    }
}

} // namespace kavplat
