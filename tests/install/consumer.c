/* A tiny host built against the installed library: proves the header and the link line work. */
#include <string.h>
#include <velto.h>

int main(void) {
    char buf[32];
    /* call_test prints "api get: 7" itself and leaves the same text in buf. */
    if (call_test(7, buf) != 0 || strcmp(buf, "api get: 7") != 0) return 1;
    return data_base_info2("x") == VELTO_NOT_INIT ? 0 : 1;
}
