// Waits end by a cancel or at a limit; a cancel ends the call in progress and no other.
#include "support/handle_state.h"

#include <gtest/gtest.h>

#include "support/QTX_ErrorCodes.h"

namespace pulsekit {
namespace {

TEST(HandleState, EndsTheWaitsOfTheCallInProgressOnly) {
  QTX_Handle *handle = nullptr;
  ASSERT_EQ(QTX_InitHandle(&handle), 0);
  EXPECT_TRUE(cancelCall(handle));
  for (const int32_t limit_ms : {0, 1}) {
    stateOf(handle)->wait_limit_ms = limit_ms;
    const int32_t code = limit_ms == 0 ? kCancelled : kWaitedTooLong;
    const CallScope call(handle);
    {
      const CallScope inner(handle);
      Deadline deadline(handle);
      EXPECT_EQ(waitCheck(handle, deadline), 0) << "a cancel from before the call";
      if (limit_ms == 0) cancelCall(handle);
      pauseWait(handle, 50);  // nothing sleeps in this program
      for (const uint64_t now = QTX_timestamp_us(); QTX_timestamp_us() < now + 2000;) continue;
      EXPECT_EQ(waitCheck(handle, deadline), code);
      EXPECT_EQ(inner.result(kSuccess), code);
      EXPECT_EQ(waitCheck(handle, deadline), 0) << "no moment left to put things in order";
    }
    Deadline later(handle, -1);
    stateOf(handle)->grace_until = 0;
    EXPECT_EQ(waitCheck(handle, later), code);
  }
  Deadline outside(handle, 0);
  EXPECT_EQ(waitCheck(handle, outside), kWaitedTooLong) << "of a function of the layers";
  EXPECT_EQ(cancelCheck(handle), 0);
  QTX_Handle *again = handle;
  QTX_FreeHandle(&handle);
  EXPECT_FALSE(cancelCall(again));
  EXPECT_EQ(QTX_FreeHandle(&again), 0) << "a second time";
  Deadline none(nullptr, 0), endless(nullptr);
  EXPECT_EQ(waitCheck(nullptr, none), kWaitedTooLong);
  EXPECT_EQ(waitCheck(nullptr, endless), 0);
}

}  // namespace
}  // namespace pulsekit
