// The user's consent to collection: the flag every collecting component reads, the marker file that
// keeps a refusal across runs, and the erasure of the collected files.
#include "Consent.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "OsApi.h"

namespace Velto {

namespace {

const char kMarkerName[] = "sdk.declined";
const char kMarkerText[] = "declined\n";
// The files of collected data beside the message store's own (MsgFile::erase_files).
const char* const kCollectedNames[] = {"sdk.cf",      "sdk.cf.host", "sdk.cf.bad", "debug_msg_to_svr.html",
                                       "sdk.log.bak", "tmp"};

std::atomic<bool> g_declined{false};
std::atomic<unsigned> g_round{0};
std::atomic<unsigned> g_honoured{0};

}  // namespace

bool consent_declined() {
    return g_declined.load(std::memory_order_acquire);
}

void set_consent_declined(bool declined) {
    if (declined) g_round.fetch_add(1);
    g_declined.store(declined, std::memory_order_release);
}

unsigned consent_round() {
    return g_round.load();
}

void note_consent_honoured(unsigned round) {
    g_honoured.store(round);
}

unsigned consent_honoured() {
    return g_honoured.load();
}

bool consent_marker_present(const std::string& root) {
    return !root.empty() && access((root + kMarkerName).c_str(), F_OK) == 0;
}

bool keep_consent_choice(const std::string& root, bool declined) {
    if (root.empty()) return false;
    const std::string path = root + kMarkerName;
    if (declined) return consent_marker_present(root) || replace_file(path, kMarkerText);
    return std::remove(path.c_str()) == 0 || !consent_marker_present(root);
}

void erase_collected_files(const std::string& root) {
    if (root.empty()) return;
    for (const char* name : kCollectedNames) std::remove((root + name).c_str());
}

}  // namespace Velto
