/*
 * A table's callbacks called without an agent: requests as the table helpers leave
 * them for a handler, and the walk's index varbinds.
 *
 *     handler_call call;
 *     call.add(3, entry);
 *     EXPECT_EQ(call.run(kavPlatFanTable_handler), SNMP_ERR_NOERROR);
 *     EXPECT_EQ(call.answer(0), integer_value(2));
 */
#ifndef KAVPLAT_TESTS_ROOMS_REQUESTS_H
#define KAVPLAT_TESTS_ROOMS_REQUESTS_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <array>
#include <cstdint>
#include <deque>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/* What a varbind holds. */
struct snmp_value {
    int type = ASN_NULL;
    int64_t number = 0; /* of a numeric type */
    std::string octets; /* of an OCTET STRING; an OBJECT IDENTIFIER in dotted form */

    bool operator==(const snmp_value &) const = default;
};

inline void PrintTo(const snmp_value &value, std::ostream *out)
{
    *out << "type " << value.type << " " << value.number << " "
         << testing::PrintToString(value.octets);
}

inline snmp_value integer_value(int32_t number)
{
    return {ASN_INTEGER, number, {}};
}

inline snmp_value gauge_value(uint32_t number)
{
    return {ASN_GAUGE, number, {}};
}

inline snmp_value timeticks_value(uint32_t number)
{
    return {ASN_TIMETICKS, number, {}};
}

inline snmp_value octets_value(std::string octets)
{
    return {ASN_OCTET_STR, 0, std::move(octets)};
}

inline snmp_value object_id_value(std::string dotted)
{
    return {ASN_OBJECT_ID, 0, std::move(dotted)};
}

/* Without a value: ASN_NULL for one that nobody answered, or an exception such
 * as SNMP_NOSUCHINSTANCE. */
inline snmp_value no_value(int type = ASN_NULL)
{
    return {type, 0, {}};
}

inline std::string dotted(const oid *name, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += (i == 0 ? "" : ".") + std::to_string(name[i]);
    }
    return text;
}

inline snmp_value value_of(const netsnmp_variable_list &var)
{
    snmp_value value = no_value(var.type);
    switch (var.type) {
    case ASN_INTEGER:
        value.number = *var.val.integer;
        break;
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_COUNTER:
        value.number = static_cast<int64_t>(static_cast<u_long>(*var.val.integer));
        break;
    case ASN_OCTET_STR:
        value.octets.assign(reinterpret_cast<const char *>(var.val.string), var.val_len);
        break;
    case ASN_OBJECT_ID:
        value.octets = dotted(var.val.objid, var.val_len / sizeof(oid));
        break;
    default:
        break;
    }
    return value;
}

/* One call of a handler. */
class handler_call
{
  public:
    explicit handler_call(int mode = MODE_GET) { info_.mode = mode; }
    ~handler_call()
    {
        for (netsnmp_request_info &request : requests_) {
            netsnmp_free_request_data_sets(&request);
            snmp_free_varbind(request.requestvb);
        }
    }
    handler_call(const handler_call &) = delete;
    handler_call &operator=(const handler_call &) = delete;

    /* A request for a column; what the walk found goes along as the iterator's
     * context, null: it found nothing. */
    netsnmp_request_info &add(unsigned column, const void *row)
    {
        netsnmp_request_info &request = add_without_table_info(row);
        netsnmp_table_request_info &table = tables_.emplace_back();
        table.colnum = column;
        netsnmp_request_add_list_data(
            &request, netsnmp_create_data_list(TABLE_HANDLER_NAME, &table, nullptr));
        return request;
    }

    netsnmp_request_info &add_without_table_info(const void *row)
    {
        netsnmp_request_info &request = requests_.emplace_back();
        const oid name[] = {1, 3, 6, 1};
        snmp_varlist_add_variable(&request.requestvb, name, OID_LENGTH(name), ASN_NULL, nullptr, 0);
        if (row) {
            netsnmp_request_add_list_data(
                &request,
                netsnmp_create_data_list(TABLE_ITERATOR_NAME, const_cast<void *>(row), nullptr));
        }
        request.agent_req_info = &info_;
        if (requests_.size() > 1) {
            netsnmp_request_info &before = requests_[requests_.size() - 2];
            before.next = &request;
            request.prev = &before;
        }
        return request;
    }

    int run(Netsnmp_Node_Handler *handler)
    {
        return handler(nullptr, nullptr, &info_, requests_.empty() ? nullptr : &requests_.front());
    }

    snmp_value answer(size_t i) const { return value_of(*requests_.at(i).requestvb); }
    /* The error that the handler put on the request, 0: none. */
    int error(size_t i) const { return requests_.at(i).status; }
    bool is_processed(size_t i) const { return requests_.at(i).processed != 0; }

  private:
    netsnmp_agent_request_info info_ = {};
    std::deque<netsnmp_request_info> requests_;
    std::deque<netsnmp_table_request_info> tables_;
};

/* The value of one column of one row, by a GET; the handler must not fail. */
inline snmp_value served(Netsnmp_Node_Handler *handler, unsigned column, const void *row)
{
    handler_call call;
    call.add(column, row);
    EXPECT_EQ(call.run(handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.error(0), SNMP_ERR_NOERROR);
    return call.answer(0);
}

/* One walk of a table by its two iterator callbacks. Keeps its index varbinds
 * and contexts from step to step, as net-snmp's table iterator does. */
class table_steps
{
  public:
    table_steps(Netsnmp_First_Data_Point *first, Netsnmp_Next_Data_Point *next,
                unsigned indexes = 1)
        : first_(first), next_(next)
    {
        for (unsigned i = 0; i < indexes; i++) {
            snmp_varlist_add_variable(&index_, nullptr, 0, ASN_INTEGER, nullptr, 0);
            set_index(0, i);
        }
    }
    ~table_steps() { snmp_free_varbind(index_); }
    table_steps(const table_steps &) = delete;
    table_steps &operator=(const table_steps &) = delete;

    void set_index(uint32_t value, unsigned which = 0)
    {
        const auto number = static_cast<long>(value);
        snmp_set_var_value(varbind(which), &number, sizeof number);
    }
    uint32_t index(unsigned which = 0)
    {
        return static_cast<uint32_t>(*varbind(which)->val.integer);
    }

    /* Whether the callback found a row; it must return the first index varbind
     * then. */
    bool first() { return stepped(first_(&loop_context, &data_context, index_, nullptr)); }
    bool next() { return stepped(next_(&loop_context, &data_context, index_, nullptr)); }

    /* What the last step left for the handler. */
    const void *row() const { return data_context; }

    void *loop_context = nullptr;
    void *data_context = nullptr;

  private:
    netsnmp_variable_list *varbind(unsigned which)
    {
        netsnmp_variable_list *var = index_;
        for (; which != 0; which--) {
            var = var->next_variable;
        }
        return var;
    }
    bool stepped(const netsnmp_variable_list *result)
    {
        EXPECT_TRUE(result == nullptr || result == index_);
        return result != nullptr;
    }

    Netsnmp_First_Data_Point *first_;
    Netsnmp_Next_Data_Point *next_;
    netsnmp_variable_list *index_ = nullptr;
};

#endif
