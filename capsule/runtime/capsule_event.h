// CapsuleEvent is an event that threads set and wait for. Objects with equal names share one event
// within the process.
//
//   CapsuleEvent done("copy-done", CapsuleEvent::ManualReset);
//   done.setEvent();                                   // in one thread
//   done.waitAll(1000, CapsuleEvent::ReturnIndex);     // in another: 0 once it is set
//
// setEvent, resetEvent and waitAll may be called from any thread; linking and assigning only while
// no other thread uses the object.
#pragma once

#include <cstdint>
#include <vector>

#include "capsule/export.h"
#include "capsule/platform/cstring.h"
#include "capsule/runtime/cps_list.h"

namespace capsule {

// A number above 0.
using EventHandle = uint32_t;

class CAPSULE_API CapsuleEvent {
 public:
  // AutoReset: the wait that returns the event clears it. Any other value: it stays set.
  enum EventTypes { AutoReset = 0, ManualReset = 1 };
  enum ReturnType { ReturnIndex = 0, ReturnHandle = 1 };
  enum SecurityTypes { SecurityDefault = 0 };

  // `name`: copied; null means "CapsuleEventDefault". An existing event keeps its kind.
  CapsuleEvent(const char* name, EventTypes type);
  explicit CapsuleEvent(EventTypes type);
  CapsuleEvent();
  CapsuleEvent(const CapsuleEvent& other);
  virtual ~CapsuleEvent();

  // Takes the other's name and type and opens that event. Linked events stay those of this object.
  // The handle held before stays open until the object goes.
  CapsuleEvent& operator=(const CapsuleEvent& other);

  // Default name and type, no handle (the one held before stays open until the object goes).
  // Always 0.
  int SetDefaults();
  int32_t isValid() const;
  EventHandle handle() const;
  void setEvent();
  void resetEvent();

  // Makes waitAll wait for `other` too; it is not owned and must outlive this object's waits.
  CapsuleEvent& operator<<(CapsuleEvent& other);
  int32_t Entries() const;

  // Waits until this event (index 0) or a linked one (1 on, in order of linking) is set: the lowest
  // index, or with ReturnHandle that event's handle. 0xFFFFFFFF after `timeoutMs` milliseconds
  // (-1: no limit) or on failure.
  uint32_t waitAll(int32_t timeoutMs, ReturnType type);

  // 1 when both names are equal byte for byte.
  int32_t isEqual(const CapsuleEvent& other) const;

  // Accepted and ignored. Always 0.
  int SetSecurity(SecurityTypes security);

 protected:
  // Opens the event by name; its handle, or 0.
  EventHandle Init();

 private:
  void KeepUntilTheEnd();

  CString m_pszName;
  EventHandle m_hEvent = 0;
  int32_t m_bValid = 0;
  SecurityTypes m_nSecurity = SecurityDefault;
  EventTypes m_nType = AutoReset;
  CpsList m_Linked;
  std::vector<EventHandle> m_Replaced;  // handles no longer in use, still open
};

}  // namespace capsule
