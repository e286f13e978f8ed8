/* SPDX-License-Identifier: MIT */
/* cu_catalog.cpp - finds and reads message catalogs as gencat writes them. A record can name any file, so nothing in one
 * is trusted, and it is read rather than mapped: a file that is truncated meanwhile must not kill the process.
 *
 *   offset  bytes
 *        0      4  magic number
 *        4      4  plane size   entries of a plane
 *        8      4  plane depth  planes
 *       12         planes of entries, least significant byte first
 *                  the same planes, most significant byte first
 *                  texts, each ended by a NUL
 *
 *   entry   bytes
 *        0      4  set number + 1; 0 in an empty entry
 *        4      4  message number
 *        8      4  offset of the text, counted from the first text
 *
 * The words of the header are in the byte order of the host that wrote the file. */
#include "cu_catalog.h"

#include <endian.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "zk_io.h"

enum {
  HEADER_SIZE = 12,
  ENTRY_SIZE = 12,
  PLANES_MAX = 1024, /* how many are searched; gencat needs 89 where every second message is made to collide */
  TEXT_MAX = 65536,  /* longest text, terminator included */
  PATH_SIZE = 4096   /* longest path that can be opened, terminator included */
};

static constexpr uint32_t CATALOG_MAGIC = 0x960408de;

/* Where the C library looks after NLSPATH. */
static constexpr const char* DEFAULT_NLSPATH =
    "/usr/share/locale/%L/%N:/usr/share/locale/%L/LC_MESSAGES/%N:"
    "/usr/share/locale/%l/%N:/usr/share/locale/%l/LC_MESSAGES/%N";

struct open_catalog_t {
  int fildes;
  uint64_t size; /* of the file, in bytes; both tables of planes lie within it */
  uint32_t plane_size;
  uint32_t plane_depth;
};

struct catalog_path_t {
  char text[PATH_SIZE];
  size_t length;
};

/* ---- Reading a catalog ------------------------------------------------------------------------------- */

/* Reads exactly `size` bytes. `offset` lies within the file's size, so it fits an off_t. */
static bool read_at(const open_catalog_t& catalog, uint64_t offset, void* bytes, size_t size) {
  return zk_read(catalog.fildes, bytes, size, static_cast<off_t>(offset)) == size;
}

/* Reads the header and checks that the planes it declares fit in the file. */
static bool read_header(open_catalog_t* catalog) {
  uint32_t header[HEADER_SIZE / sizeof(uint32_t)];
  if (!read_at(*catalog, 0, header, HEADER_SIZE)) return false;
  const bool is_little = le32toh(header[0]) == CATALOG_MAGIC;
  if (!is_little && be32toh(header[0]) != CATALOG_MAGIC) return false;
  catalog->plane_size = is_little ? le32toh(header[1]) : be32toh(header[1]);
  catalog->plane_depth = is_little ? le32toh(header[2]) : be32toh(header[2]);
  uint64_t entries = (catalog->size - HEADER_SIZE) / (2 * ENTRY_SIZE);
  return catalog->plane_size > 0 && catalog->plane_depth <= entries / catalog->plane_size;
}

/* The size also keeps out most of the kernel's own files, which report none and may do anything when read. */
static bool can_be_catalog(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_size >= HEADER_SIZE;
}

/* Opens the catalog `path`. Opening a device or a FIFO can have effects of its own, so the file is looked at first; the
 * flags are for one that is replaced between the two. */
static bool open_catalog(const char* path, open_catalog_t* catalog) {
  struct stat status;
  if (stat(path, &status) != 0 || !can_be_catalog(status)) return false;
  catalog->fildes = zk_retry([&] { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
  if (catalog->fildes == -1) return false;

  if (fstat(catalog->fildes, &status) == 0 && can_be_catalog(status)) {
    catalog->size = static_cast<uint64_t>(status.st_size);
    if (read_header(catalog)) return true;
  }
  close(catalog->fildes);
  return false;
}

static char* read_text(const open_catalog_t& catalog, uint64_t offset) {
  if (offset >= catalog.size) return nullptr;
  size_t size = static_cast<size_t>(std::min<uint64_t>(catalog.size - offset, TEXT_MAX));
  char* text = static_cast<char*>(malloc(size));
  if (text == nullptr) return nullptr;
  if (read_at(catalog, offset, text, size) && memchr(text, '\0', size) != nullptr) return text;
  free(text);
  return nullptr;
}

/* Looks a message up. Every plane has one slot where it may stand; the slot is what gencat computes on a host of this
 * kind: the product of two 32-bit integers, widened with its sign. */
static char* find_text(const open_catalog_t& catalog, uint32_t set, uint32_t number) {
  size_t product = static_cast<size_t>(static_cast<int32_t>((set + 1) * number));
  uint64_t slot = product % catalog.plane_size;
  uint64_t texts = HEADER_SIZE + uint64_t{2 * ENTRY_SIZE} * catalog.plane_size * catalog.plane_depth;
  uint32_t planes = std::min<uint32_t>(catalog.plane_depth, PLANES_MAX);

  for (uint32_t plane = 0; plane < planes; ++plane, slot += catalog.plane_size) {
    uint32_t entry[ENTRY_SIZE / sizeof(uint32_t)];
    if (!read_at(catalog, HEADER_SIZE + slot * ENTRY_SIZE, entry, ENTRY_SIZE)) return nullptr;
    if (le32toh(entry[0]) == set + 1 && le32toh(entry[1]) == number)
      return read_text(catalog, texts + le32toh(entry[2]));
  }
  return nullptr;
}

/* ---- Finding a catalog ------------------------------------------------------------------------------- */

static bool append(catalog_path_t* path, const char* text, size_t length) {
  if (length >= PATH_SIZE - path->length) return false;
  memcpy(path->text + path->length, text, length);
  path->length += length;
  path->text[path->length] = '\0';
  return true;
}

/* Appends what "%" and `letter` stand for in NLSPATH. A locale is language[_territory][.codeset]. */
static bool append_field(catalog_path_t* path, char letter, const char* name, const char* locale) {
  const char* territory = locale + strcspn(locale, "_.");
  const char* codeset = locale + strcspn(locale, ".");
  if (letter == 'N') return append(path, name, strlen(name));
  if (letter == 'L') return append(path, locale, strlen(locale));
  if (letter == 'l') return append(path, locale, static_cast<size_t>(territory - locale));
  if (letter == 't')
    return *territory != '_' || append(path, territory + 1, static_cast<size_t>(codeset - territory - 1));
  if (letter == 'c') return *codeset != '.' || append(path, codeset + 1, strlen(codeset + 1));
  return letter == '%' && append(path, "%", 1);
}

/* Makes `path` from the element of NLSPATH that ends before `end`; an empty one stands for the name itself. Returns
 * false when the element is to be skipped: it has an unknown field or becomes too long. */
static bool expand_element(catalog_path_t* path, const char* element, const char* end, const char* name,
                           const char* locale) {
  path->length = 0;
  path->text[0] = '\0';
  if (element == end) return append(path, name, strlen(name));
  for (; element < end; ++element) {
    if (*element != '%') {
      if (!append(path, element, 1)) return false;
    } else if (++element == end || !append_field(path, *element, name, locale)) {
      return false;
    }
  }
  return true;
}

static bool open_along(const char* nlspath, const char* name, const char* locale, open_catalog_t* catalog) {
  catalog_path_t path;
  for (const char* element = nlspath;;) {
    const char* end = element + strcspn(element, ":");
    if (expand_element(&path, element, end, name, locale) && open_catalog(path.text, catalog)) return true;
    if (*end == '\0') return false;
    element = end + 1;
  }
}

/* A program that has more rights than its caller takes neither NLSPATH nor LANG from it, nor does one that is someone else
 * for a while. */
static const char* trusted_variable(const char* name) {
  return getuid() == geteuid() && getgid() == getegid() ? secure_getenv(name) : nullptr;
}

static bool open_for_locale(const char* locale, const char* name, open_catalog_t* catalog) {
  const char* nlspath = trusted_variable("NLSPATH");
  if (nlspath != nullptr && *nlspath != '\0' && open_along(nlspath, name, locale, catalog)) return true;
  return open_along(DEFAULT_NLSPATH, name, locale, catalog);
}

static bool find_catalog(const char* name, open_catalog_t* catalog) {
  if (*name == '\0') return false;
  if (strchr(name, '/') != nullptr) return open_catalog(name, catalog);

  const char* locale = setlocale(LC_MESSAGES, nullptr);
  const char* lang = trusted_variable("LANG");
  if (lang == nullptr || *lang == '\0') lang = "C";
  return open_for_locale(locale, name, catalog) || (strcmp(lang, locale) != 0 && open_for_locale(lang, name, catalog));
}

char* cu_read_message(const char* name, int32_t set, int32_t number) {
  open_catalog_t catalog;
  if (name == nullptr || set < 1 || number < 1 || !find_catalog(name, &catalog)) return nullptr;
  char* text = find_text(catalog, static_cast<uint32_t>(set), static_cast<uint32_t>(number));
  close(catalog.fildes);
  return text;
}
