/*
 * An SNMPv2c client that costs next to nothing: one datagram per request, made
 * from a template, and of the answer it looks at no more than the error status,
 * how many varbinds there are and what the last one is called. What is measured
 * with it is the agent.
 */
#ifndef KAVPLAT_BENCH_LIGHT_CLIENT_H
#define KAVPLAT_BENCH_LIGHT_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/* The BER contents of an object identifier. */
using encoded_name = std::vector<uint8_t>;
encoded_name encode(std::span<const unsigned long> name);

/* A part of a walk: `count` varbinds behind `start`, of which `last` is the last. */
struct walk_range {
    encoded_name start;
    encoded_name last;
    size_t count;
};

class light_client
{
  public:
    explicit light_client(uint16_t port);
    ~light_client();
    light_client(const light_client &) = delete;
    light_client &operator=(const light_client &) = delete;

    /* Walks a range by GETBULK, or with no repetitions by GETNEXT. Never asks for
     * more than is left of it. Throws when there is no answer, an error, or the
     * walk does not end where it should. */
    void walk(const walk_range &range, size_t repetitions);

  private:
    size_t ask(size_t repetitions);

    int socket_ = -1;
    int32_t request_id_ = 0;
    encoded_name position_;
    std::vector<uint8_t> request_;
    std::vector<uint8_t> answer_;
};

#endif
