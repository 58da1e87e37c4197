// The settings store: every tunable of the library as text under an upper-case key, filled with the
// 23 built-in defaults, overlaid by the enciphered file "sdk.cf" and the server's configuration, and
// read by every component. One process-wide object, Config::obj_; each access takes the store's own
// mutex for that access only. init_conf, save_conf and get_conf_frm_svr run on the background thread.
#ifndef VELTO_CONFIG_H
#define VELTO_CONFIG_H

#include <atomic>
#include <string>

#include "OsApi.h"
#include "Util.h"

namespace Velto {

// The record kinds the server may switch off, in the order of their exported calls.
enum RecordKind { KIND_EVENT, KIND_SCREEN, KIND_COUNT, KIND_ERR_TRACE, KIND_EXPERIENCE, KIND_COUNT_ };

class Config {
  public:
    static Config* obj_;

    // The key that switches a kind off (its exported call's name): once present in the store,
    // whatever its value, the kind's records are refused for the rest of the run.
    static const char* kind_key(RecordKind kind);
    // Whether the kind's key is in the store. Kept as a flag updated by set(), so that the record
    // calls need no look-up by name.
    bool kind_off(RecordKind kind) const { return (kinds_off_.load(std::memory_order_acquire) >> kind) & 1u; }

    // Creates the mutex on first use (data_init).
    void init_mutex();

    // Each of the accessors takes the store's lock, which is not recursive.
    std::string get_str(const std::string& key) EXCLUDES(m_);  // "" when absent
    long long get_int(const std::string& key) EXCLUDES(m_);    // atol of the value; 0 when absent or empty
    void set(const std::string& key, long long value) EXCLUDES(m_);           // "%lld"; empty key ignored
    void set(const std::string& key, const std::string& value) EXCLUDES(m_);  // as given; empty key ignored
    bool has(const std::string& key) EXCLUDES(m_);                            // presence, whatever the value
    bool on(const std::string& key) EXCLUDES(m_);                             // value upper-cased equals "ON"
    // Increment-and-return; 0 and nothing stored when absent.
    long long ins(const std::string& key) EXCLUDES(m_);
    int load_default();              // the 23 defaults, overwriting
    StrMap snapshot() EXCLUDES(m_);  // a copy of the whole store

    // Defaults, then "sdk.cf", then the server when due. 0, 203, 204, 206 or 301.
    int init_conf();
    // Validates a flat JSON configuration key by key into the store; false when empty or < 10 items.
    bool ana_conf(const std::string& text);
    // The JSON of the saved keys; with write, also enciphers it into "sdk.cf". "" on failure.
    std::string save_conf(bool write);
    // POSTs the client's identity to the configuration endpoint; conf = the reply's "conf" member.
    // 0, 204, 205 or 301.
    int get_conf_frm_svr(std::string& conf);

    Mutex& mutex() RETURN_CAPABILITY(m_) { return m_; }

  private:
    int load_saved(bool& loaded, bool& other_host);
    bool saved_is_fresh(bool loaded, bool other_host);
    void note_kind(const std::string& key);

    StrMap map_ GUARDED_BY(m_);
    Mutex m_;
    bool mutex_inited_ = false;
    std::atomic<unsigned> kinds_off_{0};
    std::string written_;  // what save_conf last wrote to "sdk.cf" (background thread only)
};

// Opens the configuration file at path for reading and writing, creating it empty when it is missing,
// and reads its one token ("" for an empty file, or for a token too long to be ours). False when the
// file can be neither opened nor created; err then holds the system's reason.
bool read_conf_token(const std::string& path, std::string& token, int& err);
// Judges the configuration endpoint's reply (status = its HTTP status code): RES_OK with conf = the
// reply's "conf" member, or RES_SVR_REJECT (conf empty) unless the reply is a 2xx one with "status" 0
// and a usable "conf".
int judge_conf_reply(long status, const std::string& reply, std::string& conf);

// The collection server's host: the one built in at compile time (VELTO_COLLECT_HOST), unless the
// environment variable of the same name, read by data_init, or a test named another.
std::string collect_host();
// The default CONF_URL: "https://" + collect_host().
std::string default_conf_url();
// host[:port], a name of letters, digits, dots and hyphens and a port of 1 to 65535.
bool valid_collect_host(const std::string& host);
// data_init: a well-formed VELTO_COLLECT_HOST replaces the built-in host; anything else is logged
// and ignored.
void read_collect_host_env();
// Where get_conf_frm_svr posts: "https://" + host + "/v1/conf". Tests aim it elsewhere with
// set_conf_endpoint_host (for example "127.0.0.1:43210"); an empty host restores the built-in one.
std::string conf_endpoint();
void set_conf_endpoint_host(const std::string& host);

}  // namespace Velto

#endif
