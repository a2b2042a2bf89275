// Octets that nobody else may read: a key. They are wiped before others take their place and when they end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavu {

template<size_t Size>
class secret_octets {
  public:
    secret_octets() = default;
    ~secret_octets() { wipe(); }
    secret_octets(const secret_octets&) = delete;
    secret_octets& operator=(const secret_octets&) = delete;

    const uint8_t* octets() const { return octets_; }
    // Room for Size new octets.
    uint8_t* refill() {
        wipe();
        return octets_;
    }
    void wipe() { explicit_bzero(octets_, sizeof octets_); }

  private:
    uint8_t octets_[Size] = {};
};

} // namespace tavu
