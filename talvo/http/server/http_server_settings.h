// The limits that an HTTP server sets its clients.
#pragma once

#include "talvo/http/message/http_limits.h"

namespace talvo {

// The options of an acceptor; ECmChannelServerOption describes each.
struct CHttpServerSettings {
    CHttpServerSettings() { m_Limits.m_ullMaxBody = CCmHttpLimits::SERVER_MAX_BODY; }

    CCmHttpLimits m_Limits;
    CmDword m_dwMaxHead = 256u << 10;
    CmDword m_dwMaxConnections = 10000;
    CmDword m_dwHeadSeconds = 10;
    CmDword m_dwIdleSeconds = 60;
    CmDword m_dwStopSeconds = 30;
};

}  // namespace talvo
