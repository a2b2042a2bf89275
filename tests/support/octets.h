// A message written by hand, byte for byte, so that what a module makes of it is not judged by the layouts
// that the module itself uses.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace test {

class octets {
  public:
    // Room for the number and the two references that every protocol message begins with.
    octets(uint32_t procedure_reference, uint32_t connection_reference) : all_(4) {
        word(procedure_reference).word(connection_reference);
    }

    octets& word(uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8)
            all_.push_back(static_cast<uint8_t>(value >> shift));
        return *this;
    }
    octets& text(const std::string& value, size_t size) {
        all_.insert(all_.end(), value.begin(), value.end());
        return fill(0, size - value.size());
    }
    octets& fill(uint8_t value, size_t count) {
        all_.insert(all_.end(), count, value);
        return *this;
    }
    // What the other message has behind its references.
    octets& append(const octets& other) {
        all_.insert(all_.end(), other.all_.begin() + 12, other.all_.end());
        return *this;
    }
    octets& resize(size_t size) {
        all_.resize(size);
        return *this;
    }

    const uint8_t* data() const { return all_.data(); }
    size_t size() const { return all_.size(); }

  private:
    std::vector<uint8_t> all_;
};

} // namespace test
