/* SPDX-License-Identifier: MIT */
#include "usersfile.h"

#include "boundedread.h"
#include "rtsplimits.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace rtsp
{

namespace
{

constexpr const char *REALM = "tessard";
constexpr gsize HASH_CHARACTERS = 32;

std::nullopt_t
fail(GError **error, const char *path, const char *reason)
{
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_FAILED, "Could not read the users of '%s': %s.", path,
              reason);
  return std::nullopt;
}

std::optional<std::string>
read_file(const char *path, GError **error)
{
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return fail(error, path, g_strerror(errno));
  }
  g_autoptr(GError) cause = nullptr;
  g_autoptr(GByteArray) bytes = bounded_read(fd, RTSP_USERS_BYTES_MAX, &cause);
  if (bytes == nullptr) {
    return fail(error, path, cause->message);
  }
  if (bytes->len == 0) {
    return fail(error, path, "the file is empty");
  }
  if (bytes->len > RTSP_USERS_BYTES_MAX) {
    return fail(error, path, "the file is too long");
  }
  return std::string(reinterpret_cast<const char *>(bytes->data), bytes->len);
}

bool
is_name(std::string_view text)
{
  return !text.empty() &&
         std::none_of(text.begin(), text.end(), [](char character) { return g_ascii_iscntrl(character); });
}

/* As md5sum writes it. The engine takes any characters, and no client can log in with most of them. */
bool
is_hash(std::string_view text)
{
  return text.size() == HASH_CHARACTERS && std::all_of(text.begin(), text.end(), [](char character) {
           return g_ascii_isdigit(character) || (character >= 'a' && character <= 'f');
         });
}

bool
is_user(std::string_view line)
{
  const gsize first = line.find(':');
  const gsize last = line.rfind(':');
  return first < last && is_name(line.substr(0, first)) &&
         line.substr(first + 1, last - first - 1) == REALM && is_hash(line.substr(last + 1));
}

bool
check_lines(std::string_view text, const char *path, GError **error)
{
  guint number = 1;
  for (gsize begin = 0, end = 0; begin < text.size(); begin = end + 1, number++) {
    end = std::min(text.find('\n', begin), text.size());
    if (!is_user(text.substr(begin, end - begin))) {
      g_autofree char *reason = g_strdup_printf("line %u is not USER:%s:HASH", number, REALM);
      fail(error, path, reason);
      return false;
    }
  }
  return true;
}

/* The engine reads users from a file only. It gets exactly what was checked. */
bool
pass_on(GstRTSPAuth *auth, const std::string &text, GstRTSPToken *token)
{
  const int fd = memfd_create("users", MFD_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  g_autofree char *copy = g_strdup_printf("/proc/self/fd/%d", fd);
  const bool is_written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const bool is_read = is_written && gst_rtsp_auth_parse_htdigest(auth, copy, token) != FALSE;
  close(fd);
  return is_read;
}

} // namespace

/**
 * add_users:
 * @auth: the access of clients, which then needs a digest for the realm "tessard"
 * @path: a file with a line USER:tessard:HASH for each user, as htdigest writes it
 * @token: what the users may do
 * @error: return location for an error of %G_OPTION_ERROR, whose message is for the user
 *
 * Returns: %FALSE if the file cannot be read, or a line has another form
 */
bool
add_users(GstRTSPAuth *auth, const char *path, GstRTSPToken *token, GError **error)
{
  gst_rtsp_auth_set_supported_methods(auth, GST_RTSP_AUTH_DIGEST);
  gst_rtsp_auth_set_realm(auth, REALM);
  const std::optional<std::string> text = read_file(path, error);
  if (!text.has_value() || !check_lines(*text, path, error)) {
    return false;
  }
  if (!pass_on(auth, *text, token)) {
    fail(error, path, "the system has no memory for them");
    return false;
  }
  return true;
}

} // namespace rtsp
