// A process-wide replaceable implementation of one platform effect.
//
// Production code calls Seam<Iface>::get(); unless a test has installed a
// fake with ScopedSeam, that is the real implementation returned by
// Iface::real(). Swapping is atomic so a fake can be installed while other
// threads are idle; tests install fakes before starting the code under test.
#pragma once

#include <atomic>

namespace vekd {

template <class Iface>
class Seam {
  public:
    static Iface& get() {
        Iface* fake = slot().load(std::memory_order_acquire);
        return fake ? *fake : Iface::real();
    }
    // Installs `fake` (nullptr restores the real one); returns what was there.
    static Iface* swap(Iface* fake) { return slot().exchange(fake, std::memory_order_acq_rel); }

  private:
    static std::atomic<Iface*>& slot() {
        static std::atomic<Iface*> s{nullptr};
        return s;
    }
};

template <class Iface>
class ScopedSeam {
  public:
    explicit ScopedSeam(Iface& fake) : m_prev(Seam<Iface>::swap(&fake)) {}
    ~ScopedSeam() { Seam<Iface>::swap(m_prev); }
    ScopedSeam(const ScopedSeam&) = delete;
    ScopedSeam& operator=(const ScopedSeam&) = delete;

  private:
    Iface* m_prev;
};

}  // namespace vekd
