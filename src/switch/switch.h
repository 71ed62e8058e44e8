// Internal interface of the switch-entry layer: the process role and the helpers that the
// XA entries share.
#pragma once

#include <xajms/xajms.h>

namespace xajms::switch_ {

// A process is a broker process once ZJavaInitSwitchJMS has run in it.
inline bool isBrokerProcess() {
    return flBrokerInit_jms >= 1;
}

}  // namespace xajms::switch_
