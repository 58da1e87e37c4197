// The request context of the library's uploads, read from the settings, the base information and
// the consent state just before each upload. Background thread.
#include "Uploader.h"

#include <climits>

#include "BaseInfo.h"
#include "ComInc.h"
#include "Config.h"
#include "Consent.h"

namespace Velto {

namespace {

// How long a file upload waits for the base information its form carries.
const int kBaseWaitSeconds = 30;

unsigned int timeout_ms(long long configured) {
    if (configured < 0) return 0;
    return configured > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(configured);
}

}  // namespace

Uploader& Uploader::standard() {
    static Uploader* uploader = new Uploader();  // never destroyed: the loop may run at exit
    return *uploader;
}

Config& Uploader::conf() {
    return conf_ ? *conf_ : *Config::obj_;
}

BaseInfo& Uploader::base() {
    return base_ ? *base_ : g_base_info;
}

UploadContext Uploader::context() {
    UploadContext ctx;
    ctx.timeout_ms = timeout_ms(conf().get_int("CON_TIMEOUT"));
    ctx.zip = conf().on("ZIP_DATA");
    ctx.tid = conf().get_str("tid");
    ctx.procname = base()["procname"];
    ctx.did = base()["did"];
    ctx.declined = &consent_declined;
    return ctx;
}

int Uploader::send_msg(const std::string& data, const std::string& url, const std::string& field) {
    return Velto::send_msg(data, url.c_str(), field, context());
}

int Uploader::send_file(const std::string& data, const std::string& url, const std::string& name) {
    if (!data.empty()) base().wait(kBaseWaitSeconds);  // an empty file is refused at once
    return Velto::send_file(data, url.c_str(), name, context());
}

std::string Uploader::send_msg_res(const std::string& data, const std::string& url,
                                   const std::string& field) {
    return Velto::send_msg_res(data, url.c_str(), field, context());
}

}  // namespace Velto
