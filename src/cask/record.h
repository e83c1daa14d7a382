#pragma once
// Shared, reference-counted records.
//
// A record that several machines hold (a route, its interface records) is
// reference counted and watchable: `class Route : public Cask::Record<Route>`.
// `Cask::Ptr<Route>` holds it; `Cask::make<Route>(...)` creates it. The count
// is a plain integer: records belong to the single event-loop thread.
// Records are allocated from the `RecordPool`.

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <utility>

#include "cask/notifier.h"
#include "cask/record_pool.h"

namespace Cask {

template <class T>
using Ptr = boost::intrusive_ptr<T>;

template <class T>
class Record : public Notifier,
               public boost::intrusive_ref_counter<T, boost::thread_unsafe_counter>,
               public PooledNew<T> {};

template <class T, class... A>
Ptr<T> make(A&&... args) {
    return Ptr<T>(new T(std::forward<A>(args)...));
}

}  // namespace Cask
