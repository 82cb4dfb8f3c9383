/*
 * A platform whose sensors take their time, and somebody who asks its agent for
 * something else meanwhile.
 */
#ifndef KAVPLAT_TESTS_E2E_SLOW_PLATFORM_H
#define KAVPLAT_TESTS_E2E_SLOW_PLATFORM_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

using clock_type = std::chrono::steady_clock;

/* kavPlatNumericSensorTable, its current reading. */
inline const object_name readings = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1, 4};

inline double seconds_since(clock_type::time_point begin)
{
    return std::chrono::duration<double>(clock_type::now() - begin).count();
}

/* Each reading takes so long. */
inline agent_options platform_of_slow_sensors(unsigned count, unsigned milliseconds)
{
    return {.preload = KAVPLAT_CHURNING_PLATFORM,
            .environment = {{"KAVPLAT_CHURN_STABLE", "1"},
                            {"KAVPLAT_CHURN_SENSORS", std::to_string(count)},
                            {"KAVPLAT_CHURN_SENSOR_MS", std::to_string(milliseconds)}}};
}

/* The readings' names: behind "/SYS" and the unit. */
inline std::vector<object_name> names_of_readings(unsigned count)
{
    std::vector<object_name> names;
    for (unsigned i = 0; i < count; i++) {
        names.push_back(readings);
        names.back().push_back(3 + i);
    }
    return names;
}

/* Asks for another object all the time, and keeps the longest wait for it. */
class poller
{
  public:
    explicit poller(uint16_t port)
        : thread_([this, port] {
              snmp_client client(port);
              while (!is_over_) {
                  const auto begin = clock_type::now();
                  unanswered += client.get({uptime()}).error == 0 ? 0U : 1U;
                  worst = std::max(worst, seconds_since(begin));
                  polls++;
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
              }
          })
    {
    }
    ~poller() { end(); }
    poller(const poller &) = delete;
    poller &operator=(const poller &) = delete;

    void end()
    {
        is_over_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /* To be read after the end. */
    double worst = 0;
    unsigned polls = 0;
    unsigned unanswered = 0;

  private:
    std::atomic<bool> is_over_{false};
    std::thread thread_;
};

#endif
