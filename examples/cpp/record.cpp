// velto-example-cpp: the library behind a small C++ class, as an application might wrap it. The
// object starts the library and stops it when it goes; a Timer records how long a scope took.
//
//   velto-example-cpp ROOT_DIR
#include <sys/stat.h>
#include <velto.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

class Analytics {
  public:
    // Analytics that could not start stay silent: every call then does nothing.
    Analytics(const std::string& root, const std::string& base_line)
        : on_(data_init(root.c_str(), "example") == VELTO_OK &&
              data_base_info2(base_line.c_str()) == VELTO_OK) {}
    // data_stop does not wait for the background thread, and records still in memory when the
    // process ends are lost: the thread gets a moment to append them to sdk.msg. Whatever is on disk
    // is uploaded now or at the next start.
    ~Analytics() {
        if (!on_) return;
        data_stop();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    Analytics(const Analytics&) = delete;
    Analytics& operator=(const Analytics&) = delete;

    bool on() const { return on_; }
    int screen(const std::string& name) { return on_ ? data_screen(name.c_str()) : VELTO_STOPPED; }
    int event(const std::string& category, const std::string& action, const char* label = nullptr) {
        return on_ ? data_event(category.c_str(), action.c_str(), label, 0) : VELTO_STOPPED;
    }
    int timing(const std::string& category, long long ms) {
        // data_count takes only durations above 0.
        return on_ ? data_count(category.c_str(), ms > 0 ? ms : 1, nullptr) : VELTO_STOPPED;
    }

    // Records the time from its construction to its end as a "timing" record.
    class Timer {
      public:
        Timer(Analytics& a, std::string category)
            : a_(a), category_(std::move(category)), start_(std::chrono::steady_clock::now()) {}
        ~Timer() {
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                            start_);
            a_.timing(category_, ms.count());
        }

      private:
        Analytics& a_;
        std::string category_;
        std::chrono::steady_clock::time_point start_;
    };

  private:
    bool on_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: velto-example-cpp ROOT_DIR\n");
        return 2;
    }
    mkdir(argv[1], 0700);
    std::printf("libVelto %s, root %s\n", VELTO_VERSION_STRING, argv[1]);
    // data_base_info2: the thirteen values in one line; NULL for no install time, source or user id.
    Analytics analytics(argv[1],
                        "example-linux 1001 1.0.0 0 127.0.0.1 en-US Linux Debian-12 64 en_US NULL NULL NULL");
    if (!analytics.on()) {
        std::fprintf(stderr, "analytics off\n");
        return 1;
    }
    {
        Analytics::Timer t(analytics, "load");
        analytics.screen("MainWindow");
        analytics.event("file", "open", "recent");
    }
    std::printf("recorded; see %s/sdk.msg (velto-decode %s)\n", argv[1], argv[1]);
    return 0;
}
