#include "ui/SerialExecutor.h"

namespace orvik::ui {

SerialExecutor::SerialExecutor() {
    pool_.setMaxThreadCount(1);
    // Keep the thread (and the SQLite connections it warmed up) between calls.
    pool_.setExpiryTimeout(-1);
}

SerialExecutor::~SerialExecutor() {
    pool_.waitForDone();
}

}  // namespace orvik::ui
