/* SPDX-License-Identifier: MIT */
/* channel.h - a connection by which bytes come and go, in the open or by TLS, and never waited for. */
#pragma once

#include <gnutls/gnutls.h>
#include <sys/types.h>

#include <memory>
#include <string>

/* A certificate, its key, the authorities whose certificates are believed, and the list of those that are revoked. Sessions keep
 * what they were begun with. */
struct certificates_t {
  gnutls_certificate_credentials_t credentials;
};

/* Reads the files; without `revoked` nothing is. Returns null with the reason when one of them cannot be used. */
std::shared_ptr<certificates_t> load_certificates(const std::string& certificate, const std::string& key,
                                                  const std::string& authority, const std::string& revoked,
                                                  std::string* problem);

/* Has a connection end a minute after the other machine has vanished, at most: after 30 seconds where it owes an answer to what was
 * sent, and else, since whoever waits sends nothing, by probes. What little is sent leaves at once. */
void prepare_socket(int fildes);

/* Begins to connect to a host, whose name is looked up while everything waits; to another one of its addresses whenever `number`
 * is another. Returns a socket that is prepared and to be closed by the caller, and can be written to once it is connected; -1
 * with the reason. */
int connect_to(const std::string& host, const std::string& port, unsigned int number, std::string* reason);

/* Why a socket of connect_to that can be written to is not connected; empty when it is. */
std::string connect_problem(int fildes);

struct channel_t {
  int fildes = -1;
  gnutls_session_t session = nullptr; /* null in the open */
  std::shared_ptr<certificates_t> certificates;
  bool is_half_sent = false; /* GnuTLS keeps a record that did not leave whole */
  std::string peer_name;     /* what the certificate of the other side says, empty in the open */
};

/* Takes over a connected socket. With certificates, as the side that `is_server` says. Returns false when memory is short. */
bool open_channel(channel_t* channel, int fildes, std::shared_ptr<certificates_t> certificates, bool is_server);

enum channel_result_t {
  CHANNEL_DONE,
  CHANNEL_WANTS_READ, /* go on when the socket can be read, or */
  CHANNEL_WANTS_WRITE,
  CHANNEL_CLOSED,
  CHANNEL_FAILED /* `reason` says why */
};

/* Goes on with the beginning of TLS; done at once in the open. A certificate that is not of the authority fails, and so does a
 * name other than `name` where one is given. */
channel_result_t shake_hands(channel_t* channel, const char* name, std::string* reason);

/* Whether the certificate of the other side would be accepted by these, which may be newer than those it was accepted by. */
bool is_still_accepted(const channel_t* channel, const certificates_t* certificates);

/* Reads or writes up to `size` bytes, of which `moved` are done. */
channel_result_t read_channel(channel_t* channel, char* bytes, size_t size, size_t* moved, std::string* reason);
channel_result_t write_channel(channel_t* channel, const char* bytes, size_t size, size_t* moved, std::string* reason);

/* Whether bytes are there that the socket no longer tells of. */
bool has_unread(const channel_t* channel);

void close_channel(channel_t* channel);

/* Parts [ADDRESS:]PORT; without an address it stays as it is. Returns false when there is no port, or none up to 65535. */
bool split_address(const std::string& text, std::string* host, std::string* port);
