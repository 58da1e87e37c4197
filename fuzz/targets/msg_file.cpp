// Fuzz target: the message file store's reader over arbitrary file content: "sdk.msg" and its journal
// "sdk.msg.bak" in a scratch root, opened (journal restore, torn-line repair), read with and without
// limits, combined for an upload and rewritten. A rewrite keeps exactly what the reader keeps, so
// reading the rewritten file with the same limits must drop nothing.
// Input: the content of sdk.msg, optionally followed by a NUL and the journal's content.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Config.h"
#include "MsgFile.h"
#include "fuzz_support.h"

namespace {

struct Limits {
    long long begin, max_count, max_bytes;
};

const Limits kLimits[] = {
    {0, 100000, 6291456},  // what an upload of everything takes
    {1500000000, 3, 300},  // a late start, few records and bytes: most lines dropped
};

const std::string& root() {
    static bool ready = false;
    if (!ready) {
        Velto::Config::obj_->init_mutex();
        Velto::Config::obj_->set("ROOT_DIR", vfuzz::temp_root());
        ready = true;
    }
    return vfuzz::temp_root();
}

void place_files(const std::string& msg, const std::string& journal) {
    vfuzz::write_file(root() + "sdk.msg", msg);
    std::remove((root() + "sdk.msg.bak.bad").c_str());
    if (journal.empty()) {
        std::remove((root() + "sdk.msg.bak").c_str());
    } else {
        vfuzz::write_file(root() + "sdk.msg.bak", journal);
    }
}

}  // namespace

VELTO_FUZZ_TARGET {
    std::vector<std::string> pieces = vfuzz::split_input(data, size, 2);
    for (const Limits& lim : kLimits) {
        place_files(pieces[0], pieces[1]);
        Velto::MsgFile store;
        store.open();
        Velto::StrList records, raw;
        long long newest = 0;
        store.get_msg_list(lim.begin, lim.max_count, lim.max_bytes, records, newest, &raw, nullptr);
        if (records.size() != raw.size()) abort();
        store.comb_msg(lim.begin, lim.max_count, lim.max_bytes, newest, nullptr);
        if (store.roll_msg(lim.begin, lim.max_count, lim.max_bytes, newest) == 0) {
            if (store.get_msg_list(lim.begin, lim.max_count, lim.max_bytes, records, newest, nullptr,
                                   nullptr) != 0) {
                abort();  // the rewrite kept a line that the reader drops
            }
        }
        store.close();
    }
    return 0;
}
