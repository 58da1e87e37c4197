// The debug mirror's side files in the root directory: the switch file "DEBUG_MODE_SVR_ADDR", whose
// first line names the debug server the delivery loop mirrors each record to, and the report
// "debug_msg_to_svr.html", one table row per answer of that server (the newest rows after those
// the user left intact). Background thread (BackRun::get_svrd and save_debug_msg forward here).
#ifndef VELTO_DEBUGREPORT_H
#define VELTO_DEBUGREPORT_H

#include <string>

namespace Velto {

class DebugReport {
  public:
    // root: the root directory with its trailing "/"; empty (no root yet): no switch, no report.
    explicit DebugReport(std::string root) : root_(std::move(root)) {}

    // The switch file's first line, "" when there is no switch file.
    std::string server_address();
    // Adds a row for the server's answer to the report (nothing while the user declines).
    void save(const std::string& answer);

  private:
    std::string root_;
};

}  // namespace Velto

#endif
