#include "described/watch/source.h"

#include "described/live/log.h"
#include "described/watch/differ.h"
#include "described/watch/in_force.h"

#include <algorithm>

namespace described_platform
{
namespace
{

constexpr size_t most_errors_logged = 50;

} // namespace

source::source(std::string path, live_values &values, value_health &health)
    : path_(std::move(path)), values_(values), health_(health)
{
}

bool source::read(const read_order &order)
{
    const scoped_lock reading(mutex_);
    if (!order.even_if_unchanged && is_known(current_signature(path_))) {
        return true;
    }
    load_result result = load_description(path_);
    const bool good = result.loaded != nullptr;
    if (!good && !order.complain) {
        return false; /* not noted as seen: it is read again */
    }
    seen_ = result.signature;
    if (good) {
        take(std::move(result.loaded));
    } else {
        complain(result.errors);
    }
    return good;
}

bool source::is_known(const file_signature &now) const
{
    const description_pointer in_force = current_description();
    return seen_ == now || (in_force != nullptr && in_force->signature == now);
}

void source::complain(const std::vector<load_error> &errors)
{
    std::string complaint;
    for (const load_error &each : errors) {
        complaint += to_text(path_, each) + '\n';
    }
    if (complaint == last_complaint_) {
        return;
    }
    last_complaint_ = std::move(complaint);
    const size_t logged = std::min(errors.size(), most_errors_logged);
    for (size_t i = 0; i < logged; ++i) {
        log_error(to_text(path_, errors[i]));
    }
    if (logged < errors.size()) {
        log_error(path_ + ": and " + std::to_string(errors.size() - logged) +
                  " more errors; kavplat check tells them all");
    }
    log_error(path_ + (current_description() != nullptr
                           ? ": refused; the last good description stays in force"
                           : ": refused; there is no inventory until it is good"));
}

void source::take(std::unique_ptr<const description> loaded)
{
    const description_pointer before = current_description();
    const change_count changes = count_changes(before.get(), *loaded);
    const size_t components = loaded->components.size();
    values_.set_files(loaded->bound_files);
    health_.forget_all_but(*loaded);
    put_in_force(std::move(loaded));
    if (changes == change_count{} && last_complaint_.empty()) {
        return; /* saved as it was */
    }
    last_complaint_.clear();
    log_info(path_ + ": in force; components: " + std::to_string(components) + " (" +
             std::to_string(changes.came) + " came, " + std::to_string(changes.went) + " went, " +
             std::to_string(changes.changed) + " changed)" +
             (changes.identity ? "; the identity of product or chassis changed" : ""));
}

} // namespace described_platform
