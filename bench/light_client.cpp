#include "light_client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

enum : uint8_t {
    tag_integer = 0x02,
    tag_octets = 0x04,
    tag_null = 0x05,
    tag_name = 0x06,
    tag_sequence = 0x30,
    tag_getnext = 0xA1,
    tag_response = 0xA2,
    tag_getbulk = 0xA5,
    tag_end_of_view = 0x82
};

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

// The parts of a BER encoding one after the other.
class scanner
{
  public:
    explicit scanner(std::span<const uint8_t> bytes) : rest_(bytes) {}

    bool is_at_end() const { return rest_.empty(); }

    std::span<const uint8_t> take(uint8_t *tag)
    {
        if (rest_.size() < 2) {
            fail("an answer is cut off");
        }
        *tag = rest_[0];
        size_t length = rest_[1];
        size_t head = 2;
        if (length >= 0x80) {
            const size_t octets = length & 0x7F;
            if (octets == 0 || octets > 4 || rest_.size() < 2 + octets) {
                fail("an answer has a bad length");
            }
            length = 0;
            for (size_t i = 0; i < octets; i++) {
                length = length << 8 | rest_[2 + i];
            }
            head += octets;
        }
        if (length > rest_.size() - head) {
            fail("an answer is cut off");
        }
        const std::span<const uint8_t> contents = rest_.subspan(head, length);
        rest_ = rest_.subspan(head + length);
        return contents;
    }

    std::span<const uint8_t> take_only(uint8_t wanted)
    {
        uint8_t tag = 0;
        const std::span<const uint8_t> contents = take(&tag);
        if (tag != wanted) {
            fail("an answer is not of the form of one");
        }
        return contents;
    }

    int64_t take_integer()
    {
        int64_t value = 0;
        for (const uint8_t octet : take_only(tag_integer)) {
            value = value << 8 | octet;
        }
        return value;
    }

  private:
    std::span<const uint8_t> rest_;
};

void put(std::vector<uint8_t> &to, uint8_t tag, std::span<const uint8_t> contents)
{
    to.push_back(tag);
    to.push_back(static_cast<uint8_t>(contents.size()));
    to.insert(to.end(), contents.begin(), contents.end());
}

// Of at most 31 bits.
void put_integer(std::vector<uint8_t> &to, uint32_t value)
{
    const uint8_t octets[] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                              static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    put(to, tag_integer, octets);
}

} // namespace

encoded_name encode(std::span<const unsigned long> name)
{
    encoded_name out = {static_cast<uint8_t>(name[0] * 40 + name[1])};
    for (const unsigned long arc : name.subspan(2)) {
        for (unsigned shift = 28; shift > 0; shift -= 7) {
            if (arc >> shift != 0) {
                out.push_back(static_cast<uint8_t>(0x80 | (arc >> shift & 0x7F)));
            }
        }
        out.push_back(static_cast<uint8_t>(arc & 0x7F));
    }
    return out;
}

light_client::light_client(uint16_t port) : answer_(65536)
{
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval longest = {20, 0};
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest) ||
        connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address)) {
        fail(std::string("no socket to the agent: ") + strerror(errno));
    }
}

light_client::~light_client()
{
    close(socket_);
}

size_t light_client::ask(size_t repetitions)
{
    std::vector<uint8_t> varbind;
    put(varbind, tag_name, position_);
    put(varbind, tag_null, {});
    std::vector<uint8_t> varbinds;
    put(varbinds, tag_sequence, varbind);
    std::vector<uint8_t> pdu;
    put_integer(pdu, static_cast<uint32_t>(++request_id_));
    put_integer(pdu, 0);
    put_integer(pdu, static_cast<uint32_t>(repetitions));
    put(pdu, tag_sequence, varbinds);
    std::vector<uint8_t> message;
    const uint8_t version_2c[] = {1};
    const uint8_t community[] = {'p', 'u', 'b', 'l', 'i', 'c'};
    put(message, tag_integer, version_2c);
    put(message, tag_octets, community);
    put(message, repetitions != 0 ? tag_getbulk : tag_getnext, pdu);
    if (message.size() >= 0x80) {
        fail("a request is longer than this client can make one");
    }
    request_.clear();
    put(request_, tag_sequence, message);

    if (send(socket_, request_.data(), request_.size(), 0) < 0) {
        fail(std::string("the agent can not be asked: ") + strerror(errno));
    }
    const ssize_t length = recv(socket_, answer_.data(), answer_.size(), 0);
    if (length < 0) {
        fail(std::string("the agent does not answer: ") + strerror(errno));
    }
    scanner whole({answer_.data(), static_cast<size_t>(length)});
    scanner parts(whole.take_only(tag_sequence));
    parts.take_only(tag_integer);
    parts.take_only(tag_octets);
    scanner response(parts.take_only(tag_response));
    if (response.take_integer() != request_id_) {
        fail("the agent answers another request");
    }
    if (const int64_t error = response.take_integer(); error != 0) {
        fail("the agent answers with error " + std::to_string(error));
    }
    response.take_integer();
    scanner list(response.take_only(tag_sequence));
    size_t count = 0;
    std::span<const uint8_t> name;
    while (!list.is_at_end()) {
        scanner each(list.take_only(tag_sequence));
        name = each.take_only(tag_name);
        uint8_t type = 0;
        each.take(&type);
        if (type == tag_end_of_view) {
            fail("the walk comes to the end of what there is");
        }
        count++;
    }
    position_.assign(name.begin(), name.end());
    return count;
}

void light_client::walk(const walk_range &range, size_t repetitions)
{
    position_ = range.start;
    for (size_t left = range.count; left > 0;) {
        const size_t got = ask(std::min(repetitions, left));
        if (got == 0 || got > left) {
            fail("the agent answers with " + std::to_string(got) + " varbinds");
        }
        left -= got;
    }
    if (position_ != range.last) {
        fail("the walk does not end where it should");
    }
}
