/*
 * A value that most components have not: where there is none it takes the room of a
 * pointer, and equal are those whose values are.
 */
#ifndef KAVPLAT_DESCRIBED_RARE_H
#define KAVPLAT_DESCRIBED_RARE_H

#include <memory>
#include <utility>

namespace described_platform
{

template <class Value>
class rare
{
  public:
    rare() = default;
    rare &operator=(Value &&given)
    {
        value_ = std::make_unique<Value>(std::move(given));
        return *this;
    }

    Value &emplace() { return *(value_ = std::make_unique<Value>()); }
    bool has_value() const { return value_ != nullptr; }
    explicit operator bool() const { return has_value(); }
    const Value &operator*() const { return *value_; }
    const Value *operator->() const { return value_.get(); }
    const Value *get() const { return value_.get(); }

    bool operator==(const rare &other) const
    {
        return value_ && other.value_ ? *value_ == *other.value_ : has_value() == other.has_value();
    }

  private:
    std::unique_ptr<Value> value_;
};

} // namespace described_platform

#endif
