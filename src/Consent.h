// The user's consent to collection. A host whose user declines calls data_consent(0): from then on
// nothing is collected, kept or sent, and what was collected is erased. The choice is kept across
// runs as the marker file "sdk.declined" in the root directory. Every component that collects,
// keeps or sends something asks consent_declined() first; it is a lock-free read from any thread.
#ifndef VELTO_CONSENT_H
#define VELTO_CONSENT_H

#include <string>

namespace Velto {

bool consent_declined();
// Each refusal starts a new round, so that the background loop drops and erases once per refusal.
void set_consent_declined(bool declined);
unsigned consent_round();
// The background loop reports the round whose data it has dropped; data_consent waits for it.
void note_consent_honoured(unsigned round);
unsigned consent_honoured();

// The marker file under root (ROOT_DIR, ending in "/").
bool consent_marker_present(const std::string& root);
// Writes the marker (declined) or removes it; false when that could not be done.
bool keep_consent_choice(const std::string& root, bool declined);
// Deletes the files of collected data under root beside the message store's own (which
// MsgFile::erase_files deletes): the configuration, the debug report, the log's upload copy and the
// probe. The log "sdk.log" and the marker stay; so does "sdk.lock", which other processes may hold.
void erase_collected_files(const std::string& root);

}  // namespace Velto

#endif
