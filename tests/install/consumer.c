/* A tiny host built against an installed library: proves the headers and the link line work. */
#include <stdio.h>
#include <string.h>
#include <velto.h>
#include <velto_test.h>

int main(void) {
    char buf[32];
    /* call_test prints "api get: 7" itself and leaves the same text in buf. */
    if (call_test(7, buf) != 0 || strcmp(buf, "api get: 7") != 0) return 1;
    printf("%s\n", VELTO_VERSION_STRING);
    return data_base_info2("x") == VELTO_NOT_INIT ? 0 : 1;
}
