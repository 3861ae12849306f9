// ImplPointer owns what a class of the interface hides, and tells when nothing is there any more.
//
//   host::Image image("photos.cap");
//   host::Image other = std::move(image);
//   try {
//     Print(image.Path());
//   } catch (const host::Error& error) {
//     Print(error.Reason());  // "the object was moved from"
//   }
#pragma once

#include <memory>
#include <utility>

#include "capsule/host/error.h"

namespace capsule::host {

// A std::unique_ptr that throws Error (ErrorKind::Misuse) where that one would be undefined.
template <typename Impl>
class ImplPointer {
 public:
  ImplPointer(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

  Impl& operator*() const {
    if (!m_impl) throw Error(ErrorKind::Misuse, "", "the object was moved from");
    return *m_impl;
  }
  Impl* operator->() const { return &**this; }

 private:
  std::unique_ptr<Impl> m_impl;
};

}  // namespace capsule::host
