// The client id behind the base field "did": the machine's platform UUID, kept in a preferences file
// shared by the maker's applications, made up at random only when neither exists. The order of
// sources and the storage rules are portable code over a few platform leaf operations, so that they
// are tested with the leaves replaced.
#ifndef VELTO_CLIENTSIGN_H
#define VELTO_CLIENTSIGN_H

#include <string>

namespace Velto {

// What the client-id logic needs from the platform.
class ClientIdLeaves {
  public:
    virtual ~ClientIdLeaves() = default;
    virtual std::string platform_uuid() = 0;    // "" when the machine has none
    virtual std::string random_uuid() = 0;      // a new UUID, upper-case textual form with hyphens
    virtual bool prefs_exists() = 0;            // the preferences file is there
    virtual std::string prefs_client_id() = 0;  // its "client ID" string, "" when unreadable/absent
    // Sets "client ID" in the existing file, keeping its other keys.
    virtual void prefs_set_client_id(const std::string& id) = 0;
    // Writes a new file holding only { "client ID": id }, atomically.
    virtual void prefs_create(const std::string& id) = 0;
};

// "{" + platform UUID + "}", or "{[" + random UUID + "]}" when there is none.
std::string create_client_id(ClientIdLeaves& leaves);
// The machine's identifier as "did" carries it: never the identifier itself (which the system asks
// applications not to expose) but HMAC-SHA256 of it under the library's own fixed key, its first 16
// bytes formatted as an upper-case UUID (version 4, as systemd forms application-specific ids).
// The same machine still gets the same id; the identifier cannot be read back from it.
std::string keyed_platform_id(const std::string& source);
// The stored id when it has 10 or more characters, else a new one, which is stored.
std::string client_sign(ClientIdLeaves& leaves);
// Wraps an id that does not start with "{" in braces ("" becomes "{}").
std::string wrap_client_id(const std::string& id);
// Replaces bytes below 33 (as signed char) and 127 with "0" when the id has 2 or more characters.
std::string sanitize_client_sign(const std::string& id);

// The leaves of the platform the library was built for.
ClientIdLeaves& platform_client_id_leaves();

}  // namespace Velto

#endif
