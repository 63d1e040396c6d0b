// A latency histogram of fixed size: exact below 256 ns, then 128 buckets per power of two (under 1 %
// error), so that a run of any length keeps its percentiles in a few tens of kilobytes per thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace zepcall {

class LatencyHistogram {
public:
    void add(uint64_t nanoseconds)
    {
        ++counts_[bucketOf(nanoseconds)];
        ++count_;
        max_ = std::max(max_, nanoseconds);
    }

    void merge(const LatencyHistogram& other)
    {
        for (size_t i = 0; i < counts_.size(); ++i)
            counts_[i] += other.counts_[i];
        count_ += other.count_;
        max_ = std::max(max_, other.max_);
    }

    // The smallest bucket value below which `fraction` of the samples lie; 0 without samples.
    uint64_t percentile(double fraction) const
    {
        uint64_t wanted = static_cast<uint64_t>(fraction * static_cast<double>(count_) + 0.5);
        uint64_t seen = 0;
        for (size_t i = 0; i < counts_.size(); ++i) {
            seen += counts_[i];
            if (seen >= std::max<uint64_t>(wanted, 1))
                return std::min(valueOf(i), max_);
        }
        return max_;
    }

    uint64_t max() const { return max_; }
    uint64_t count() const { return count_; }

private:
    static constexpr unsigned kSubBits = 7;
    static constexpr uint64_t kLinear = 1u << (kSubBits + 1);
    static constexpr size_t kBuckets = kLinear + (64 - kSubBits - 1) * (1u << kSubBits);

    static size_t bucketOf(uint64_t v)
    {
        if (v < kLinear)
            return static_cast<size_t>(v);
        unsigned exponent = 63 - static_cast<unsigned>(__builtin_clzll(v));
        uint64_t sub = (v >> (exponent - kSubBits)) & ((1u << kSubBits) - 1);
        return static_cast<size_t>(kLinear + (exponent - kSubBits - 1) * (1u << kSubBits) + sub);
    }

    // The middle of a bucket's range.
    static uint64_t valueOf(size_t bucket)
    {
        if (bucket < kLinear)
            return bucket;
        uint64_t exponent = (bucket - kLinear) / (1u << kSubBits) + kSubBits + 1;
        uint64_t sub = (bucket - kLinear) % (1u << kSubBits);
        uint64_t width = uint64_t{1} << (exponent - kSubBits);
        return ((uint64_t{1} << kSubBits) + sub) * width + width / 2;
    }

    std::vector<uint64_t> counts_ = std::vector<uint64_t>(kBuckets);
    uint64_t count_ = 0;
    uint64_t max_ = 0;
};

}  // namespace zepcall
