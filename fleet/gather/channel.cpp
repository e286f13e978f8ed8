/* SPDX-License-Identifier: MIT */
/* channel.cpp - bytes that come and go, in the open or by TLS. */
#include "channel.h"

#include <gnutls/x509.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

static void free_certificates(certificates_t* certificates) {
  gnutls_certificate_free_credentials(certificates->credentials);
  delete certificates;
}

std::shared_ptr<certificates_t> load_certificates(const std::string& certificate, const std::string& key,
                                                  const std::string& authority, const std::string& revoked,
                                                  std::string* problem) {
  std::shared_ptr<certificates_t> loaded(new certificates_t{}, free_certificates);
  int result = gnutls_certificate_allocate_credentials(&loaded->credentials);
  if (result >= 0) {
    result = gnutls_certificate_set_x509_trust_file(loaded->credentials, authority.c_str(), GNUTLS_X509_FMT_PEM);
    if (result == 0) result = GNUTLS_E_NO_CERTIFICATE_FOUND;
    *problem = authority;
  }
  if (result >= 0) {
    result = gnutls_certificate_set_x509_key_file(loaded->credentials, certificate.c_str(), key.c_str(),
                                                  GNUTLS_X509_FMT_PEM);
    *problem = certificate + " with " + key;
  }
  if (result >= 0 && !revoked.empty()) {
    result = gnutls_certificate_set_x509_crl_file(loaded->credentials, revoked.c_str(), GNUTLS_X509_FMT_PEM);
    if (result == 0) result = GNUTLS_E_NO_CERTIFICATE_FOUND;
    *problem = revoked;
  }
  if (result >= 0) return loaded;
  *problem += ": ";
  *problem += gnutls_strerror(result);
  return nullptr;
}

void prepare_socket(int fildes) {
  const int on = 1, idle = 30, interval = 10, probes = 3;
  const unsigned int lost_after = 30'000;
  setsockopt(fildes, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(fildes, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(fildes, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(fildes, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
  setsockopt(fildes, IPPROTO_TCP, TCP_USER_TIMEOUT, &lost_after, sizeof lost_after);
  setsockopt(fildes, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int connect_to(const std::string& host, const std::string& port, unsigned int number, std::string* reason) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (result != 0) {
    *reason = gai_strerror(result);
    return -1;
  }
  unsigned int count = 1;
  for (const addrinfo* one = found->ai_next; one != nullptr; one = one->ai_next) ++count;
  const addrinfo* chosen = found;
  for (number %= count; number > 0; --number) chosen = chosen->ai_next;
  const int fildes = socket(chosen->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool is_begun =
      fildes >= 0 && (connect(fildes, chosen->ai_addr, chosen->ai_addrlen) == 0 || errno == EINPROGRESS);
  if (!is_begun) *reason = std::strerror(errno);
  freeaddrinfo(found);
  if (!is_begun) {
    if (fildes >= 0) close(fildes);
    return -1;
  }
  prepare_socket(fildes);
  return fildes;
}

std::string connect_problem(int fildes) {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(fildes, SOL_SOCKET, SO_ERROR, &error, &size);
  return error != 0 ? std::strerror(error) : "";
}

bool open_channel(channel_t* channel, int fildes, std::shared_ptr<certificates_t> certificates, bool is_server) {
  channel->fildes = fildes;
  channel->certificates = std::move(certificates);
  if (channel->certificates == nullptr) return true;

  const unsigned int flags = (is_server ? GNUTLS_SERVER : GNUTLS_CLIENT) | GNUTLS_NONBLOCK | GNUTLS_NO_SIGNAL;
  if (gnutls_init(&channel->session, flags) < 0) return false;
  gnutls_set_default_priority(channel->session);
  gnutls_credentials_set(channel->session, GNUTLS_CRD_CERTIFICATE, channel->certificates->credentials);
  if (is_server) gnutls_certificate_server_set_request(channel->session, GNUTLS_CERT_REQUIRE);
  gnutls_transport_set_int(channel->session, fildes);
  return true;
}

/* Takes the name of the other side: the first DNS name of its certificate, or its common name. */
static std::string name_of_peer(gnutls_session_t session) {
  unsigned int count = 0;
  const gnutls_datum_t* const chain = gnutls_certificate_get_peers(session, &count);
  gnutls_x509_crt_t certificate = nullptr;
  if (chain == nullptr || count == 0 || gnutls_x509_crt_init(&certificate) < 0) return {};
  std::array<char, 256> name;
  size_t size = name.size();
  std::string found;
  if (gnutls_x509_crt_import(certificate, &chain[0], GNUTLS_X509_FMT_DER) >= 0) {
    int result = GNUTLS_E_SUCCESS;
    for (unsigned int number = 0; result >= 0 && found.empty(); ++number) {
      size = name.size();
      result = gnutls_x509_crt_get_subject_alt_name(certificate, number, name.data(), &size, nullptr);
      if (result == GNUTLS_SAN_DNSNAME) found.assign(name.data(), size);
    }
    size = name.size();
    if (found.empty() &&
        gnutls_x509_crt_get_dn_by_oid(certificate, GNUTLS_OID_X520_COMMON_NAME, 0, 0, name.data(), &size) >= 0)
      found.assign(name.data(), size);
  }
  gnutls_x509_crt_deinit(certificate);
  return found;
}

/* What GnuTLS says of an unfinished step. */
static channel_result_t result_of(const channel_t* channel, ssize_t result, std::string* reason) {
  if (result == GNUTLS_E_AGAIN || result == GNUTLS_E_INTERRUPTED)
    return gnutls_record_get_direction(channel->session) == 1 ? CHANNEL_WANTS_WRITE : CHANNEL_WANTS_READ;
  if (result == 0 || result == GNUTLS_E_PREMATURE_TERMINATION) return CHANNEL_CLOSED;
  *reason = gnutls_strerror(static_cast<int>(result));
  return CHANNEL_FAILED;
}

channel_result_t shake_hands(channel_t* channel, const char* name, std::string* reason) {
  if (channel->session == nullptr) return CHANNEL_DONE;
  int result = gnutls_handshake(channel->session);
  while (result < 0 && gnutls_error_is_fatal(result) == 0 && result != GNUTLS_E_AGAIN)
    result = gnutls_handshake(channel->session); /* after an alert that only warns */
  if (result < 0) return result_of(channel, result, reason);

  unsigned int status = 0;
  result = gnutls_certificate_verify_peers3(channel->session, name, &status);
  if (result < 0 || status != 0) {
    gnutls_datum_t text = {};
    *reason = "its certificate is not accepted";
    if (result >= 0 && gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, &text, 0) >= 0) {
      *reason = std::string(reinterpret_cast<const char*>(text.data), text.size);
      gnutls_free(text.data);
    }
    return CHANNEL_FAILED;
  }
  channel->peer_name = name_of_peer(channel->session);
  return CHANNEL_DONE;
}

bool is_still_accepted(const channel_t* channel, const certificates_t* certificates) {
  if (channel->session == nullptr) return certificates == nullptr;
  unsigned int count = 0;
  const gnutls_datum_t* const chain = gnutls_certificate_get_peers(channel->session, &count);
  if (chain == nullptr || certificates == nullptr) return false;
  std::vector<gnutls_x509_crt_t> read;
  bool is_accepted = true;
  for (unsigned int number = 0; number < count && is_accepted; ++number) {
    gnutls_x509_crt_t certificate = nullptr;
    is_accepted = gnutls_x509_crt_init(&certificate) >= 0;
    if (!is_accepted) break;
    read.push_back(certificate);
    is_accepted = gnutls_x509_crt_import(certificate, &chain[number], GNUTLS_X509_FMT_DER) >= 0;
  }
  gnutls_x509_trust_list_t trusted = nullptr;
  gnutls_certificate_get_trust_list(certificates->credentials, &trusted);
  unsigned int status = 0;
  is_accepted = is_accepted &&
                gnutls_x509_trust_list_verify_crt2(trusted, read.data(), static_cast<unsigned int>(read.size()),
                                                   nullptr, 0, 0, &status, nullptr) >= 0 &&
                status == 0;
  for (gnutls_x509_crt_t certificate : read) gnutls_x509_crt_deinit(certificate);
  return is_accepted;
}

/* What a system call says that has not moved anything. */
static channel_result_t result_of_errno(channel_result_t wanted, std::string* reason) {
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return wanted;
  if (errno == ECONNRESET || errno == EPIPE) return CHANNEL_CLOSED;
  *reason = std::strerror(errno);
  return CHANNEL_FAILED;
}

channel_result_t read_channel(channel_t* channel, char* bytes, size_t size, size_t* moved, std::string* reason) {
  *moved = 0;
  const ssize_t count = channel->session != nullptr ? gnutls_record_recv(channel->session, bytes, size)
                                                    : recv(channel->fildes, bytes, size, 0);
  if (count > 0) {
    *moved = static_cast<size_t>(count);
    return CHANNEL_DONE;
  }
  if (count == 0) return CHANNEL_CLOSED;
  return channel->session != nullptr ? result_of(channel, count, reason) : result_of_errno(CHANNEL_WANTS_READ, reason);
}

channel_result_t write_channel(channel_t* channel, const char* bytes, size_t size, size_t* moved, std::string* reason) {
  *moved = 0;
  ssize_t count = 0;
  if (channel->session == nullptr)
    count = send(channel->fildes, bytes, size, MSG_NOSIGNAL);
  else if (channel->is_half_sent)
    count = gnutls_record_send(channel->session, nullptr, 0);
  else
    count = gnutls_record_send(channel->session, bytes, size);
  channel->is_half_sent = channel->session != nullptr && count < 0;
  if (count >= 0) {
    *moved = static_cast<size_t>(count);
    return CHANNEL_DONE;
  }
  return channel->session != nullptr ? result_of(channel, count, reason) : result_of_errno(CHANNEL_WANTS_WRITE, reason);
}

bool has_unread(const channel_t* channel) {
  return channel->session != nullptr && gnutls_record_check_pending(channel->session) > 0;
}

void close_channel(channel_t* channel) {
  if (channel->session != nullptr) {
    gnutls_bye(channel->session, GNUTLS_SHUT_WR);
    gnutls_deinit(channel->session);
    channel->session = nullptr;
  }
  channel->certificates = nullptr;
  if (channel->fildes >= 0) close(channel->fildes);
  channel->fildes = -1;
}

bool split_address(const std::string& text, std::string* host, std::string* port) {
  const size_t colon = text.rfind(':');
  *port = colon == text.npos ? text : text.substr(colon + 1);
  if (port->empty() || port->size() > 5 || port->find_first_not_of("0123456789") != port->npos) return false;
  if (std::stoul(*port) > UINT16_MAX) return false; /* of which getaddrinfo would make another one */
  if (colon == text.npos) return true;
  *host = text.substr(0, colon);
  if (host->starts_with('[') && host->ends_with(']')) *host = host->substr(1, host->size() - 2);
  return !host->empty();
}
