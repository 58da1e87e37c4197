// The exported API's lifecycle: result codes before data_init, after it and after data_stop, the
// root-directory and brand checks, the library's exported symbols, loading it
// with dlopen, and a host that exits without data_stop. Each scenario runs in its own process.
#include <dlfcn.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <thread>
#include <tuple>

#include "api_helpers.h"
#include "delivery.h"

namespace {

using apitest::give_base_info;

const char kLine[] = "tid 1 1.0 8 uip en mac 10.15 64 en-US 0 src uid";

// The library in the build directory: $VELTO_BINARY_DIR, else the parent of the tests' directory.
std::string library_path() {
    const char* dir = getenv("VELTO_BINARY_DIR");
    const std::string base = std::string(dir ? dir : "..") + "/libVelto.so";
    return vtest::file_exists(base + ".1") ? base + ".1" : base;
}

// The results of every call that refuses before data_init / after data_stop, in one line each.
std::vector<int> refusals() {
    return {data_base_info("t", 1, "p", 0, "u", "l", "o", "v", 64, "l", 0, nullptr, nullptr),
            data_base_info2(kLine),
            data_event("c", "a", nullptr, 0),
            data_screen("s"),
            data_count("c", 1, nullptr),
            data_err_trace("d", 0, nullptr, nullptr),
            data_experience("c", "a", nullptr)};
}

TEST(Api, BeforeInit) {
    RUN_SCENARIO({
        const int n = VELTO_NOT_INIT, b = VELTO_BASE_INCOMPLETE;
        EXPECT_EQ((std::vector<int>{n, n, b, b, b, b, b}), refusals());
        EXPECT_EQ(VELTO_BASE_INCOMPLETE, data_base_ext("k", "v"));
        EXPECT_EQ(0, data_changestate(1));                      // already in the foreground
        EXPECT_EQ(VELTO_BASE_INCOMPLETE, data_changestate(0));  // the "bg" event is refused
        data_stop();  // safe, and does not keep a later data_init from starting
        EXPECT_EQ(VELTO_STOPPED, data_event("c", "a", nullptr, 0));
        EXPECT_FALSE(vtest::file_exists(root + "/sdk.log"));
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        EXPECT_EQ(VELTO_BASE_INCOMPLETE,
                  data_event("c", "a", nullptr, 0));  // running again, waiting for base information
    });
}

TEST(Api, InitStoresStartupFieldsAndOpensLog) {
    RUN_SCENARIO({
        ASSERT_EQ(0, data_init(root.c_str(), "brand\"x"));
        EXPECT_TRUE(vtest::file_exists(root + "/tmp"));
        EXPECT_EQ(0, vtest::file_size(root + "/tmp"));
        EXPECT_EQ(root + "/", Velto::Config::obj_->get_str("ROOT_DIR"));
        Velto::StrMap base;
        Velto::g_base_info.copy(base);
        EXPECT_EQ("brand\\\"x", base["BRAND"]);  // escaped like every host text
        EXPECT_EQ("api_test", base["procname"]);
        EXPECT_EQ(std::to_string(getpid()), base["procid"]);
        EXPECT_EQ("1.1.1.1113", base["modver"]);
        EXPECT_EQ('{', base["did"].front());
        EXPECT_LE(std::stoll(base["tstart"]), Velto::os_time());
        EXPECT_TRUE(vtest::has(vtest::read_file(root + "/sdk.log"), "data_init end"));
        EXPECT_EQ(VELTO_BASE_INCOMPLETE, data_event("c", "a", nullptr, 0));  // base information not yet given
        EXPECT_EQ(VELTO_BASE_INCOMPLETE, data_base_ext("k", "v"));
        EXPECT_EQ(VELTO_ALREADY_INIT, data_init(root.c_str(), "brand"));
    });
}

// Refused arguments leave the library uninitialised, so the cases can follow each other.
TEST(Api, InitRefusesBadRootOrBrand) {
    RUN_SCENARIO({
        std::string file = root + "/plain";
        vtest::write_file(file, "x");
        std::string under_file = file + "/sub", missing = root + "/missing";
        const std::tuple<const char*, const char*, int> cases[] = {
            // root, brand, result
            {nullptr, "brand", VELTO_BAD_ARG},
            {root.c_str(), nullptr, VELTO_BAD_ARG},
            {root.c_str(), "br", VELTO_BAD_ARG},
            {"ab", "brand", VELTO_BAD_ROOT},                // prefix "ab/" is too short
            {under_file.c_str(), "brand", VELTO_BAD_ROOT},  // "tmp" cannot be created
            {missing.c_str(), "brand", VELTO_BAD_ROOT},
        };
        for (const auto& [dir, brand, expected] : cases)
            EXPECT_EQ(expected, data_init(dir, brand)) << (dir ? dir : "null");
        EXPECT_FALSE(vtest::file_exists(root + "/tmp"));
        EXPECT_FALSE(Velto::Config::obj_->has("ROOT_DIR"));
        // Three bytes pass the length test.
        ASSERT_EQ(0, chdir(root.c_str()));
        ASSERT_EQ(0, mkdir("abc", 0700));
        EXPECT_EQ(0, data_init("abc", "bra"));
        EXPECT_TRUE(vtest::file_exists(root + "/abc/tmp"));
    });
}

TEST(Api, AfterStopEverythingIsRefusedWithoutLogging) {
    RUN_SCENARIO({
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        ASSERT_EQ(0, give_base_info());
        data_stop();
        ASSERT_TRUE(vtest::wait_until([] { return Velto::g_back_run.stop_flag() == 0; }, 60000));
        std::string log = vtest::read_file(root + "/sdk.log");
        EXPECT_EQ(std::vector<int>(7, VELTO_STOPPED), refusals());
        EXPECT_EQ(log, vtest::read_file(root + "/sdk.log"));
        // data_base_ext logs before its tests.
        EXPECT_EQ(VELTO_STOPPED, data_base_ext("k", "v"));
        EXPECT_NE(std::string::npos, vtest::read_file(root + "/sdk.log").find("base_ext", log.size()));
        EXPECT_EQ(VELTO_ALREADY_INIT, data_init(root.c_str(), "brand"));
        data_stop();  // a second stop is harmless
    });
}

// Exactly the public functions are exported, and they work when the library is loaded by name.
TEST(Api, ExportsExactlyThePublicFunctions) {
    FILE* nm = popen(("nm -D --defined-only " + library_path()).c_str(), "r");
    ASSERT_NE(nullptr, nm);
    std::set<std::string> names;
    char addr[64], type[8], name[512];
    while (fscanf(nm, "%63s %7s %511s", addr, type, name) == 3) {
        if (std::string(type) != "A") names.insert(name);  // "A": version markers, not code
    }
    ASSERT_EQ(0, pclose(nm));
    EXPECT_EQ(
        (std::set<std::string>{"data_init", "data_stop", "data_base_info", "data_base_info2", "data_base_ext",
                               "data_event", "data_screen", "data_count", "data_err_trace", "data_experience",
                               "data_changestate", "data_consent", "call_test", "_Z10call_test3iPc"}),
        names);
    RUN_SCENARIO({
        void* lib = dlopen(library_path().c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, lib) << dlerror();
        auto init = reinterpret_cast<int (*)(const char*, const char*)>(dlsym(lib, "data_init"));
        auto stop = reinterpret_cast<void (*)()>(dlsym(lib, "data_stop"));
        auto test3 = reinterpret_cast<int (*)(int, char*)>(dlsym(lib, "_Z10call_test3iPc"));
        ASSERT_TRUE(init && stop && test3);
        EXPECT_EQ(0, init(root.c_str(), "brand"));
        EXPECT_TRUE(vtest::file_exists(root + "/tmp"));
        char buf[4] = "";
        EXPECT_EQ(5, test3(0, buf));
        EXPECT_STREQ("y", buf);
        stop();
    });
}

// Children forked while another thread is inside library calls can use the library: no lock is
// inherited held, and a child of a started library starts out stopped.
TEST(Api, ForkedChildrenNeverDeadlock) {
    RUN_SCENARIO({
        vtest::write_conf(root, "http://127.0.0.1:1");  // fresh: no configuration fetch
        ASSERT_EQ(0, data_init(root.c_str(), "brand"));
        ASSERT_EQ(0, give_base_info());
        std::atomic<bool> done{false};
        std::thread busy([&] {
            for (int i = 0; !done; ++i) {
                data_event("busy", "act", nullptr, i);
                data_base_ext("k", "v");
                data_changestate(i % 2);
            }
        });
        int failed = 0;
        for (int i = 0; i < 100; ++i) {
            pid_t pid = fork();
            if (pid == 0) {
                const bool ok = data_event("child", "act", nullptr, 0) == VELTO_STOPPED &&
                                data_base_ext("k", "v") == VELTO_STOPPED &&
                                data_init(root.c_str(), "brand") == VELTO_ALREADY_INIT;
                data_stop();
                _exit(ok ? 0 : 1);
            }
            ASSERT_GT(pid, 0);
            int status = 0;
            if (!vtest::wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 10000)) {
                kill(pid, SIGKILL);  // deadlocked
                waitpid(pid, &status, 0);
            }
            failed += !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        }
        done = true;
        busy.join();
        EXPECT_EQ(0, failed) << "children that deadlocked or whose calls gave other results";
    });
}

}  // namespace
