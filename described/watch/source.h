/* The description's file: reads it, says how it is, and puts what it says in force. */
#ifndef KAVPLAT_DESCRIBED_SOURCE_H
#define KAVPLAT_DESCRIBED_SOURCE_H

#include "described/format/loader.h"
#include "described/live/health.h"
#include "described/live/mutex.h"
#include "described/watch/read_schedule.h"

namespace described_platform
{

class source
{
  public:
    source(std::string path, live_values &values, value_health &health);

    const std::string &path() const { return path_; }

    /* False when the file was read and is bad; what was in force stays so. Any
     * thread. What is wrong is logged once. */
    bool read(const read_order &order);

  private:
    bool is_known(const file_signature &now) const REQUIRES(mutex_);
    void complain(const std::vector<load_error> &errors) REQUIRES(mutex_);
    void take(std::unique_ptr<const description> loaded) REQUIRES(mutex_);

    const std::string path_;
    live_values &values_;
    value_health &health_;

    mutex mutex_; /* held while the file is read */
    std::optional<file_signature> seen_ GUARDED_BY(mutex_);
    std::string last_complaint_ GUARDED_BY(mutex_);
};

} // namespace described_platform

#endif
