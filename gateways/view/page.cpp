/* SPDX-License-Identifier: MIT */
#include "page.h"

#include "httpreply.h"

#include <array>
#include <libsoup/soup.h>

/* The generated header is one of C. */
G_BEGIN_DECLS
#include "viewresources.h"
G_END_DECLS

namespace view
{

namespace
{

constexpr const char *FOLDER = "/tessard/view/page";

struct FileType {
  const char *suffix;
  const char *content_type;
};

constexpr std::array FILE_TYPES = {
    FileType{".html", "text/html; charset=utf-8"},
    FileType{".js", "text/javascript; charset=utf-8"},
    FileType{".css", "text/css; charset=utf-8"},
    FileType{".svg", "image/svg+xml"},
};

const char *
content_type_of(const std::string &path)
{
  for (const FileType &type : FILE_TYPES) {
    if (path.ends_with(type.suffix)) {
      return type.content_type;
    }
  }
  return "application/octet-stream";
}

} // namespace

/**
 * page_file:
 * @path: the path of a request
 *
 * For the main thread.
 *
 * Returns: (nullable): the reply with a file of the page; %NULL if there is none at the path
 */
Text
page_file(std::string_view path)
{
  const std::string name = FOLDER + std::string(path == "/" ? "/index.html" : path);
  g_autoptr(GBytes) content =
      g_resource_lookup_data(view_get_resource(), name.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  if (content == nullptr) {
    return nullptr;
  }
  gsize size = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(content, &size));
  return http_reply(SOUP_STATUS_OK, content_type_of(name), {data, size});
}

} // namespace view
