#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvx::rva {

/// The samples of one metric, in the text form of Prometheus.
class Samples {
  public:
    /// Names and values. Names are identifiers; values may be any bytes.
    using Labels = std::vector<std::pair<const char*, std::string_view>>;

    /// A value is cut to about so many bytes.
    static constexpr std::size_t kMostLabelBytes = 120;

    /// Adds a sample; samples of equal labels are one, the sum of them, since a scrape with two is
    /// refused as a whole.
    void add(double value, const Labels& labels = {});

    [[nodiscard]] bool empty() const { return values_.empty(); }

    /// One line for each sample, in the order of their labels.
    [[nodiscard]] std::string text(std::string_view metric) const;

  private:
    std::map<std::string, double> values_;  // by the labels as they are written
};

}  // namespace kvx::rva
