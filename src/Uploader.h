// The uploads as the library's components make them (the delivery loop's records and batches, the
// log's upload): the transport's send_msg, send_file and send_msg_res with their request context
// filled from the settings (CON_TIMEOUT, ZIP_DATA, "tid"), the base information ("procname",
// "did") and the user's consent. Background thread. One process-wide object, Uploader::standard();
// a test may make its own over a settings store and base information of its own.
#ifndef VELTO_UPLOADER_H
#define VELTO_UPLOADER_H

#include <string>

#include "HttpClient.h"

namespace Velto {

class BaseInfo;
class Config;

class Uploader {
  public:
    // Null: the process-wide object (Config::obj_, g_base_info) as it is at each upload.
    explicit Uploader(Config* conf = nullptr, BaseInfo* base = nullptr) : conf_(conf), base_(base) {}
    static Uploader& standard();

    // The context of the next upload, as the settings and base information stand now.
    UploadContext context();
    int send_msg(const std::string& data, const std::string& url, const std::string& field);
    // A file's form carries the identity fields, so the upload first waits up to 30 s for the base
    // information to be complete (a host that never completes it still gets its files sent).
    int send_file(const std::string& data, const std::string& url, const std::string& name);
    std::string send_msg_res(const std::string& data, const std::string& url, const std::string& field);

  private:
    Config& conf();
    BaseInfo& base();

    Config* conf_;
    BaseInfo* base_;
};

}  // namespace Velto

#endif
