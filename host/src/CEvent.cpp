// CEvent: a flag under a mutex with a condition variable.
#include <zeb/CEvent.h>

#include <chrono>

namespace zeb {

CEvent::CEvent(bool manualReset, bool initialState)
    : m_manualReset(manualReset), m_set(initialState) {}

CEvent::~CEvent() = default;

void CEvent::Signal() {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_set = true;
  if (m_manualReset) {
    m_condition.notify_all();
  } else {
    m_condition.notify_one();
  }
}

void CEvent::Reset() {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_set = false;
}

bool CEvent::Wait(unsigned int timeoutMs) {
  std::unique_lock<std::mutex> hold(m_mutex);
  auto isSet = [this] { return m_set; };
  if (timeoutMs == kInfinite) {
    m_condition.wait(hold, isSet);
  } else if (!m_condition.wait_for(hold, std::chrono::milliseconds(timeoutMs), isSet)) {
    return false;
  }
  if (!m_manualReset) m_set = false;
  return true;
}

}  // namespace zeb
