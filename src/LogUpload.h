// The upload of the diagnostics log, driven by the delivery loop while SEND_LOG_ON is on, and the
// carrying of the log's warn/error count into the settings. Background thread.
#ifndef VELTO_LOGUPLOAD_H
#define VELTO_LOGUPLOAD_H

#include "Config.h"
#include "Log.h"
#include "Uploader.h"

namespace Velto {

class LogUpload {
  public:
    explicit LogUpload(Log& log = *Log::obj_, Config& conf = *Config::obj_,
                       Uploader& uploader = Uploader::standard())
        : log_(log), conf_(conf), uploader_(uploader) {}

    // When the log has grown to half of MAX_LOG_SIZE, or LOGERR_NUM passed LOGERR_SEND_LIM, moves
    // its text aside into "sdk.log.bak" and uploads it; a backup left by a failed upload goes
    // first. Only one process of those sharing the root uploads at a time. 0 (also when nothing
    // was due), -1 (the backup not sent, the log not moved, an exception) or -2 (the upload failed;
    // the text stays in the backup).
    int send_log();

  private:
    Log& log_;
    Config& conf_;
    Uploader& uploader_;
};

// Adds the warn and error lines the log counted since the last call to LOGERR_NUM, while
// LOGERR_SEND_LIM is positive (otherwise they are not counted). The loop calls it before it saves
// the settings and before the log's upload.
void count_log_errors(Log& log, Config& conf);

}  // namespace Velto

#endif
