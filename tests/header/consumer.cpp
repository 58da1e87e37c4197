// Compiled (not linked) as C++11, 14, 17 and 20 by run.sh: the public headers in a C++ host, where
// call_test3 (declared for C++ only) is visible too.
#include <velto.h>
#include <velto_test.h>

namespace {

constexpr bool same_text(const char* a, const char* b) {
    return *a == *b && (*a == '\0' || same_text(a + 1, b + 1));
}
static_assert(same_text(VELTO_VERSION_STRING, EXPECT_STRING),
              "VELTO_VERSION_STRING differs from the project's version");
static_assert(VELTO_VERSION_MAJOR == EXPECT_MAJOR && VELTO_VERSION_MINOR == EXPECT_MINOR &&
                  VELTO_VERSION_PATCH == EXPECT_PATCH,
              "the version macros of velto.h differ from the project's version");

}  // namespace

int use_all() {
    char buf[32];
    return data_init("/tmp/x", "brand") + data_base_info2("x") + data_event("a", "b", nullptr, 0) +
           data_screen("s") + data_count("c", 1, nullptr) + data_err_trace("d", 0, nullptr, nullptr) +
           data_experience("e", "f", nullptr) + data_changestate(1) + data_base_ext("k", "v") +
           call_test(1, buf) + call_test3(1, buf);
}
