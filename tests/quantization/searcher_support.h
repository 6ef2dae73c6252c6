// Small float and 8-bit net pairs with in-memory calibration samples, for
// the searcher and tuner tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dataloader/data_loader.h"
#include "runtime/json11.h"
#include "runtime/net.h"
#include "support/net_builder.h"

namespace qzdl::test {

struct SearchNets {
  std::unique_ptr<Net<float>> f;
  std::unique_ptr<Net<unsigned char>> q;
  std::unique_ptr<dataLoader::DataLoader> loader;
  // Each net input's samples, one behind the other (kept alive for the loader).
  std::vector<std::unique_ptr<std::vector<float>>> samples;
};

// The float net of `b` at batch `items`, its 8-bit twin and a loader whose
// input `i` holds `items` samples of values[i] (one item after the other).
// Without `with_int8` the 8-bit net is an empty one (for searchers that use
// only its configuration, on nets with float-only test layers).
inline SearchNets MakeSearchNets(const NetBuilder& b, int items,
                                 const std::vector<std::vector<float>>& values,
                                 bool with_int8 = true) {
  SearchNets s;
  s.f = b.Build();
  std::string error;
  const json11::Json desc = json11::Json::parse(b.JsonText(), error);
  EXPECT_EQ(error, "");
  if (with_int8) {
    s.q = std::make_unique<Net<unsigned char>>(desc, "int8", nullptr);
    const std::string weights = b.WeightsBytes();
    if (!b.Blobs().empty())
      s.q->LoadWeights(const_cast<char*>(weights.data()), int(weights.size()));
  } else {
    s.q = std::make_unique<Net<unsigned char>>();
  }
  s.loader = std::make_unique<dataLoader::DataLoader>(s.f.get(), dataLoader::Binary);
  s.loader->data_format = dataLoader::Binary;
  for (int i = 0; i < s.f->GetInputCount(); ++i) {
    const std::string name = s.f->GetInputDataName(i);
    const long count = s.loader->counts[name];
    auto storage = std::make_unique<std::vector<float>>(values[i]);
    EXPECT_EQ(storage->size(), static_cast<size_t>(count * items)) << name;
    for (int k = 0; k < items; ++k) {
      s.loader->AddLoader(name, "");
      s.loader->loaders[name].back()->Load(storage->data() + k * count, s.loader->transforms[name]);
    }
    s.samples.push_back(std::move(storage));
  }
  // The loader counts one item's elements: the batch changes after it.
  s.f->ReshapeBatchNum(items, 0);
  return s;
}

}  // namespace qzdl::test
