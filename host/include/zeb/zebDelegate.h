/* zebDelegate.h: the C view of zeb::delegate<void()>, for hosts written in C.
 *
 * Three pointer-sized words, in this order: invoker (called with the target),
 * target, table (the target's pair of operations: clone, then destroy). An
 * empty delegate has all three null. Passed and returned by value; whoever
 * holds one owns one reference to its target and gives it back with
 * zebDelegate_Destroy. Thread-safety is that of the target's operations.
 */
#ifndef ZEB_ZEBDELEGATE_H
#define ZEB_ZEBDELEGATE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zebDelegate {
  void (*invoker)(void*);
  void* target;
  const void* table;
} zebDelegate;

/* Releases the delegate: its table's destroy(target) when the table is not
 * null; nothing otherwise. The delegate must not be used afterwards. */
__attribute__((visibility("default"))) void zebDelegate_Destroy(zebDelegate handle);

#ifdef __cplusplus
}
static_assert(sizeof(zebDelegate) == 3 * sizeof(void*), "zebDelegate: three words");
#endif

#endif /* ZEB_ZEBDELEGATE_H */
