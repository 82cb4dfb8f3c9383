/*
 * Messages without a library: as broken as a test wants them, to be compared byte for
 * byte.
 */
#ifndef KAVPLAT_TESTS_E2E_MESSAGES_H
#define KAVPLAT_TESTS_E2E_MESSAGES_H

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "harness/client.h"

/* Tag, length and content; the length in the form of three octets. */
inline std::string encoded(char tag, const std::string &content)
{
    const size_t length = content.size();
    return tag + std::string{'\x82', static_cast<char>(length >> 8), static_cast<char>(length)} +
           content;
}

inline std::string encoded(int32_t number)
{
    const uint32_t bits = htonl(static_cast<uint32_t>(number));
    return encoded('\x02', std::string(reinterpret_cast<const char *>(&bits), sizeof bits));
}

/* Without tag and length, which an agent may encode otherwise. */
inline std::string content_of(const object_name &name)
{
    std::string content = {static_cast<char>(name[0] * 40 + name[1])};
    for (size_t i = 2; i < name.size(); i++) {
        int shift = 28;
        while (shift > 0 && name[i] >> shift == 0) {
            shift -= 7;
        }
        for (; shift >= 0; shift -= 7) {
            content += static_cast<char>((name[i] >> shift & 0x7F) | (shift > 0 ? 0x80 : 0));
        }
    }
    return content;
}

constexpr char get_pdu = '\xA0';
constexpr char getnext_pdu = '\xA1';
constexpr char set_pdu = '\xA3';
constexpr char getbulk_pdu = '\xA5';

/* The two numbers are a GETBULK's. A SET sets the INTEGER 1. */
inline std::string encoded_pdu(char type, int32_t id, const std::vector<object_name> &names,
                               int32_t non_repeaters = 0, int32_t repetitions = 0)
{
    std::string varbinds;
    for (const object_name &name : names) {
        varbinds += encoded('\x30', encoded('\x06', content_of(name)) +
                                        (type == set_pdu ? encoded(1) : encoded('\x05', "")));
    }
    return encoded(type, encoded(id) + encoded(non_repeaters) + encoded(repetitions) +
                             encoded('\x30', varbinds));
}

/* version: 0 is SNMPv1, 1 is SNMPv2c. */
inline std::string message(int version, const std::string &community, const std::string &pdu)
{
    return encoded('\x30', encoded(version) + encoded('\x04', community) + pdu);
}

inline std::string get_message(const std::string &community, const std::vector<object_name> &names)
{
    return message(1, community, encoded_pdu(get_pdu, 1, names));
}

/* A client that closes when it likes and keeps what it is sent. */
class connection
{
  public:
    connection(int type, uint16_t port) : socket_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0)
            << strerror(errno);
    }
    ~connection() { close(socket_); }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    void send(const std::string &message) const
    {
        EXPECT_EQ(::send(socket_, message.data(), message.size(), 0),
                  static_cast<ssize_t>(message.size()));
    }

    void say_no_more() const { EXPECT_EQ(shutdown(socket_, SHUT_WR), 0); }

    /* One datagram, or some of a stream; empty at its end, and after ten seconds. */
    std::string read() const
    {
        std::array<char, 65536> buffer;
        pollfd readable = {socket_, POLLIN, 0};
        const ssize_t length =
            poll(&readable, 1, 10'000) == 1 ? recv(socket_, buffer.data(), buffer.size(), 0) : 0;
        return std::string(buffer.data(), length > 0 ? static_cast<size_t>(length) : 0);
    }

    /* What comes until a text is in it, or without one to the end. */
    std::string read_until(const std::string &text) const
    {
        std::string all;
        for (std::string more;
             (text.empty() || all.find(text) == std::string::npos) && !(more = read()).empty();) {
            all += more;
        }
        return all;
    }

  private:
    int socket_;
};

#endif
