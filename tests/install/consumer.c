/* A tiny host built against the installed library: proves the header and the link line work. */
#include <stdio.h>
#include <velto.h>

int main(void) {
    char buf[32];
    if (call_test(7, buf) != 0) return 1;
    printf("%s\n", buf);
    return data_base_info2("x") == VELTO_NOT_INIT ? 0 : 1;
}
