// Session tracking: the session id every record carries, renewed after the session time-out of
// idle foreground use or on return from a long absence in the background. One process-wide object,
// g_session; it has no lock of its own and is used only under the API lock.
#ifndef VELTO_SESSION_H
#define VELTO_SESSION_H

#include <string>

namespace Velto {

class Session {
  public:
    static const unsigned long long kBuiltinTimeout = 1799;  // also "not yet read from configuration"

    Session();
    // The session id for a record made at `now`, renewed first when the foreground idle time is over.
    std::string GetSID(long long now);
    // True when the foreground/background state changed.
    bool ChangeState(int foreground);

    bool background() const { return bg_ != 0; }
    unsigned long long timeout() const { return tmout_; }

  private:
    std::string sid_;
    long long last_;
    long long bg_;
    unsigned long long tmout_;
};

}  // namespace Velto

#endif
