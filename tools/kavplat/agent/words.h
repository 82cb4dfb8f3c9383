/* The model in words, and texts of an agent as what may be printed. */
#ifndef KAVPLAT_AGENT_WORDS_H
#define KAVPLAT_AGENT_WORDS_H

#include "entity.h"

namespace kavplat_agent
{

/* Without control characters and without what turns the direction of writing: those,
 * and octets that are no UTF-8, become \xNN; with ascii all that is not ASCII does. */
std::string printable(const std::string &text, bool ascii = false);

/* Octets as they are, but those that are no UTF-8 by a replacement character. */
std::string as_utf8(const std::string &text);

/* "powerSupply"; "class 77" where the number is unknown here. */
std::string class_name(int32_t code);

const char *level_name(level each);
const char *limit_name(limit each);

/* By a code of kavPlatAlarmState: "off", "on", "blinking". */
const char *light_name(int32_t code);

/* "locked", "disabled", "standby"...; empty where there is nothing to tell. */
std::string state_words(const entity &each);

/* "23.8 °C", "2.4 GHz", "Present"; what keeps it from being read. */
std::string reading_words(const reading &each, bool ascii = false);
std::string number_words(double number, int decimals, const std::string &unit, bool ascii = false);

/* "[0 5 10 .. 35 40 45]"; empty where there are no limits. */
std::string limits_words(const reading &each);

} // namespace kavplat_agent

#endif
