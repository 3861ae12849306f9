// A handle that is replaced is kept open until the object goes, since it may have been handed out.
#include "capsule/runtime/capsule_event.h"

#include <new>

#include "capsule/runtime/event_table.h"

namespace capsule {
namespace {

constexpr char kDefaultName[] = "CapsuleEventDefault";
constexpr uint32_t kFailed = 0xFFFFFFFF;

}  // namespace

CapsuleEvent::CapsuleEvent(const char* name, EventTypes type)
    : m_pszName(name == nullptr ? kDefaultName : name), m_nType(type) {
  Init();
}

CapsuleEvent::CapsuleEvent(EventTypes type) : CapsuleEvent(kDefaultName, type) {}

CapsuleEvent::CapsuleEvent() : CapsuleEvent(AutoReset) {}

CapsuleEvent::CapsuleEvent(const CapsuleEvent& other)
    : m_pszName(other.m_pszName), m_nType(other.m_nType) {
  Init();
}

CapsuleEvent::~CapsuleEvent() {
  if (m_hEvent != 0) CloseEvent(m_hEvent);
  for (const EventHandle handle : m_Replaced) CloseEvent(handle);
}

CapsuleEvent& CapsuleEvent::operator=(const CapsuleEvent& other) {
  if (this == &other) return *this;
  m_pszName = other.m_pszName;
  m_nType = other.m_nType;
  Init();
  if (m_bValid != 0) SetSecurity(other.m_nSecurity);
  return *this;
}

EventHandle CapsuleEvent::Init() {
  KeepUntilTheEnd();
  m_hEvent = OpenEvent(m_pszName, m_nType != AutoReset);
  m_bValid = m_hEvent != 0 ? 1 : 0;
  return m_hEvent;
}

void CapsuleEvent::KeepUntilTheEnd() {
  if (m_hEvent != 0) m_Replaced.push_back(m_hEvent);
  m_hEvent = 0;
}

int CapsuleEvent::SetDefaults() {
  KeepUntilTheEnd();
  m_pszName = kDefaultName;
  m_bValid = 0;
  m_nSecurity = SecurityDefault;
  m_nType = AutoReset;
  return 0;
}

int32_t CapsuleEvent::isValid() const { return m_bValid; }

EventHandle CapsuleEvent::handle() const { return m_hEvent; }

void CapsuleEvent::setEvent() {
  if (m_bValid != 0) SignalEvent(m_hEvent);
}

void CapsuleEvent::resetEvent() {
  if (m_bValid != 0) ClearEvent(m_hEvent);
}

CapsuleEvent& CapsuleEvent::operator<<(CapsuleEvent& other) {
  m_Linked.Append(&other);
  return *this;
}

int32_t CapsuleEvent::Entries() const { return m_Linked.GetCount(); }

uint32_t CapsuleEvent::waitAll(int32_t timeoutMs, ReturnType type) try {
  std::vector<EventHandle> handles{m_hEvent};
  for (int i = 0; i < m_Linked.GetCount(); ++i) {
    const auto* linked = static_cast<const CapsuleEvent*>(m_Linked.GetAt(i));
    handles.push_back(linked->handle());
  }
  const int index = WaitForEvents(handles, timeoutMs);
  if (index < 0) return kFailed;
  return type == ReturnHandle ? handles[static_cast<size_t>(index)] : static_cast<uint32_t>(index);
} catch (const std::bad_alloc&) {
  m_bValid = 0;
  return kFailed;
}

int32_t CapsuleEvent::isEqual(const CapsuleEvent& other) const {
  return m_pszName == other.m_pszName ? 1 : 0;
}

int CapsuleEvent::SetSecurity(SecurityTypes) { return 0; }

}  // namespace capsule
