/*
 * An SNMPv2c client of an agent on the loopback. Each object has a session of its
 * own, so that several threads can ask at once, each with its own.
 */
#ifndef KAVPLAT_TESTS_HARNESS_CLIENT_H
#define KAVPLAT_TESTS_HARNESS_CLIENT_H

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

using object_name = std::vector<unsigned long>;

std::string to_text(const object_name &name);

struct snmp_value {
    int type = 5;       /* the ASN.1 tag; NULL when there is nothing */
    int64_t number = 0; /* of a numeric type */
    std::string text;   /* of an OCTET STRING */
    object_name object; /* of an OBJECT IDENTIFIER */

    bool operator==(const snmp_value &) const = default;
};

enum : int {
    snmp_integer = 0x02,
    snmp_octets = 0x04,
    snmp_object_id = 0x06,
    snmp_timeticks = 0x43,
    snmp_no_such_object = 0x80,
    snmp_no_such_instance = 0x81,
    snmp_end_of_view = 0x82
};

snmp_value integer_value(int64_t number);
snmp_value text_value(std::string text);
snmp_value object_value(object_name object);
snmp_value no_instance();

struct varbind {
    object_name name;
    snmp_value value;

    bool operator==(const varbind &) const = default;
};

void PrintTo(const snmp_value &value, std::ostream *out);
void PrintTo(const varbind &v, std::ostream *out);

struct snmp_answer {
    long error = 0;       /* SNMP error status; -1: no answer came */
    long error_index = 0; /* from 1 */
    std::vector<varbind> varbinds;
};

class snmp_client
{
  public:
    explicit snmp_client(uint16_t port, const std::string &community = "public");
    ~snmp_client();
    snmp_client(const snmp_client &) = delete;
    snmp_client &operator=(const snmp_client &) = delete;

    /* How long one request waits for its answer; each is sent once. 10 s. */
    void set_timeout(std::chrono::milliseconds timeout);

    snmp_answer get(const std::vector<object_name> &names);
    snmp_answer get_next(const std::vector<object_name> &names);
    snmp_answer get_bulk(const std::vector<object_name> &names, long non_repeaters,
                         long repetitions);
    snmp_answer set(const std::vector<varbind> &values);

    /* All below a place, by GETNEXT. Throws when there is no answer or the order
     * does not increase. */
    std::vector<varbind> walk(const object_name &root);
    /* The same by GETBULK. */
    std::vector<varbind> bulk_walk(const object_name &root, long repetitions);

    bool is_answered();
    /* Whether there is something below a place. */
    bool answers_getnext(const object_name &root);

  private:
    snmp_answer send(void *pdu);

    void *session_ = nullptr;
};

bool is_below(const object_name &name, const object_name &root);

#endif
