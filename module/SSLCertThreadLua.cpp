#include "module/SSLCertThreadLua.h"

#include "host/Dom.h"
#include "host/Runnable.h"
#include "ssl/SSLCertThread.h"

void sslCertThreadLua_Init(SLB::Manager* manager) {
    using VEXIL::CSSLCertThread;
    SLB::Class<CSSLCertThread, SLB::Instance::NoCopy>("vexil::SSLCertThread", manager)
        .setInfo("VEXIL::CSSLCertThread: decrypts the driver's SSL pre-master secrets")
        .constructor<NorvCore::CDom&>()
        .inherits<NorvCore::CRunnable>()
        .inherits<wxThread>()
        .set("OnSecurityConfigurationChanged", &CSSLCertThread::OnSecurityConfigurationChanged);
}
