// zebDelegate_Destroy: releases the C view of a delegate<void()>.
#include <zeb/zebDelegate.h>

#include <zeb/delegate.h>

extern "C" void zebDelegate_Destroy(zebDelegate handle) {
  // Taking the words over into a delegate releases them on its destruction.
  zeb::delegate<void()> owner = zeb::FromC(handle);
  (void)owner;
}
