// The /v1/conf replies velto-collector serves: a built-in configuration that points the library at
// this collector, one file given with --conf, or one file per brand in --conf-dir (BRAND.json, and
// default.json for every other brand), each read again when it changes. Used by the receiver on any
// request thread; safe on any thread.
#ifndef VELTO_COLLECTOR_CONF_SOURCE_H
#define VELTO_COLLECTOR_CONF_SOURCE_H

#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace vcollect {

class ConfSource {
  public:
    // builtin: the reply when no file applies. file and dir: "" when not given.
    ConfSource(std::string builtin, std::string file, std::string dir);

    // Reads the files once; false (after a line on stderr) when --conf is unusable or --conf-dir is
    // not a directory.
    bool check();
    // The reply for a brand.
    std::string reply(const std::string& brand);

  private:
    struct Cached {
        time_t mtime = 0;
        long mtime_ns = 0;
        off_t size = -1;
        std::string reply;  // "" when the file is missing or unusable
    };
    const std::string& load(const std::string& path);

    const std::string builtin_, file_, dir_;
    std::mutex m_;
    std::map<std::string, Cached> cache_;
};

// The built-in reply: uploads to https://HOST:PORT, sent every minute.
std::string builtin_conf_reply(const std::string& host, int https_port);

// The reply a configuration file gives: the whole text when it has a "status" member, else
// {"status":0,"conf":TEXT}. False with a reason for anything that is not a JSON object.
bool conf_reply_from_text(std::string text, std::string& reply, std::string& why);

}  // namespace vcollect

#endif
