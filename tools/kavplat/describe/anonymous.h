/*
 * Takes out of a recording what tells this machine from another of the same make: serial
 * numbers, asset tags, UUIDs, addresses of network ports. Everything keeps its length,
 * and what is no secret its place, so that the same components are found in it.
 */
#ifndef KAVPLAT_DESCRIBE_ANONYMOUS_H
#define KAVPLAT_DESCRIBE_ANONYMOUS_H

#include "tools/kavplat/describe/recording.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace kavplat_describe
{

/* What is a secret wherever it stands. */
class secrets
{
  public:
    void add(std::string_view text);

    /* The text with 'X' or '0' in place of every secret, and of whatever has the form of
     * a UUID or of a network port's address. */
    std::string without(std::string_view text) const { return covered(text, false); }

    /* So that two names remain two: each with a number of its own at the end. */
    std::string renamed(std::string_view text) const { return covered(text, true); }

  private:
    std::string covered(std::string_view text, bool numbered) const;

    std::set<std::string, std::less<>> all_;
    std::set<size_t> lengths_; /* of them */
    mutable std::map<std::string, size_t, std::less<>> numbers_;
};

/* What it found is for other texts about the machine. */
secrets make_anonymous(recording &of);

} // namespace kavplat_describe

#endif
