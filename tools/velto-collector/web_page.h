// The collector's page (tools/velto-collector/web/index.html), embedded into the binary at build
// time: CMake writes the bytes into a generated source file (embed_page.cmake). Served by api.cpp.
#ifndef VELTO_COLLECTOR_WEB_PAGE_H
#define VELTO_COLLECTOR_WEB_PAGE_H

#include <cstddef>

namespace vcollect {

extern const unsigned char kPageHtml[];
extern const size_t kPageHtmlSize;

}  // namespace vcollect

#endif
