// Stopping the execution group's listener when the host is done, as a broker does when it
// shuts down.
#pragma once

namespace xajms::eg_host {

// Finds this process's broker row in the registry file and sends its port the close request
// ("Cleanup Java Process"), then waits until the listener has emptied its row and stopped.
// Returns false when there was no row or the listener did not stop within a few seconds.
bool stopListener();

}  // namespace xajms::eg_host
