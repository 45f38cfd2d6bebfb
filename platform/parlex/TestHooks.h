// Points at which a test makes a rare interleaving of the transport's threads happen every time.
// Empty unless a test sets them; each costs a check of an empty function where it runs.
#pragma once

#include <functional>

namespace parlex::transport {

// Runs on the thread constructing an AndroidProxy, after the service answered the creation and
// before the connection routes the proxy's events, "death" included, to it.
extern std::function<void()> beforeProxyRouted;

}  // namespace parlex::transport
