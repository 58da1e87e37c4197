// velto-demo: a small host application. It starts the library in the given root directory,
// describes itself, records one of each kind of record, goes to the background and back, stops,
// and waits (at most 60 s) for the background thread to finish its last upload.
//
//   velto-demo ROOT_DIR
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>

#include "velto.h"

namespace {

void show(const char* call, int result) {
    printf("  %-58s -> %d\n", call, result);
}

bool log_says(const std::string& log_path, const char* text) {
    std::ifstream in(log_path);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return all.find(text) != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: velto-demo ROOT_DIR\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);  // keep our lines in order with the collector's
    std::string root = argv[1];
    mkdir(root.c_str(), 0755);
    printf("host: recording into %s\n", root.c_str());

    show("data_init(root, \"velto-demo\")", data_init(root.c_str(), "velto-demo"));
    long long installed = static_cast<long long>(time(nullptr)) - 30 * 86400;
    show("data_base_info(\"demo-tid\", 1001, \"2.4.0\", ...)",
         data_base_info("demo-tid", 1001, "2.4.0", 60, "127.0.0.1", "en-US", "Linux", "Debian 12", 64,
                        "en_US", installed, "website", "user-42"));
    show("data_base_ext(\"plan\", \"pro\")", data_base_ext("plan", "pro"));
    show("data_screen(\"MainWindow\")", data_screen("MainWindow"));
    show("data_event(\"toolbar\", \"click\", \"save\", 1)", data_event("toolbar", "click", "save", 1));
    show("data_count(\"export\", 1520, \"pdf\")", data_count("export", 1520, "pdf"));
    show("data_err_trace(\"disk full\", 1, \"export\", stack)",
         data_err_trace("disk full", 1, "export", "at save()\nat export()"));
    show("data_experience(\"onboarding\", \"finished\", props)",
         data_experience("onboarding", "finished", "{\"steps\":4,\"skipped\":0}"));
    show("data_changestate(0)   (to the background)", data_changestate(0));
    show("data_changestate(1)   (back to the foreground)", data_changestate(1));
    show("data_event(\"\", \"click\", NULL, 0)   (bad argument)", data_event("", "click", nullptr, 0));

    sleep(1);
    printf("host: data_stop()\n");
    data_stop();
    show("data_screen(\"Settings\")   (after stop)", data_screen("Settings"));

    // data_stop does not wait for the network; a host that wants its last records uploaded before
    // it exits gives the background thread a moment, as here.
    std::string log_path = root + "/sdk.log";
    for (int i = 0; i < 600 && !log_says(log_path, "back thread stop ..."); ++i) usleep(100 * 1000);
    printf("host: background thread %s\n",
           log_says(log_path, "back thread stop ...") ? "finished" : "still busy after 60 s");
    return 0;
}
