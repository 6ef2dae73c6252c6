#include "runtime/quant_config.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qzdl {
namespace {

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

TEST(QuantizationConfig, ZeroToTwentyFiveAndAHalf) {
  QuantizationConfig c(0.0f, 25.5f);
  EXPECT_EQ(Bits(c.getScale()), Bits(25.5f / 255.0f));
  EXPECT_EQ(c.getScale(), 0.1f);
  EXPECT_EQ(c.getZeroPoint(), 0);
  EXPECT_EQ(c.invQuantization(255), 255 * 0.1f);
}

TEST(QuantizationConfig, TieRoundsAwayFromZero) {
  QuantizationConfig c(-63.75f, 63.75f);
  EXPECT_EQ(c.getScale(), 0.5f);
  EXPECT_EQ(c.getZeroPoint(), 128);
  EXPECT_EQ(c.invQuantization(128), 0.0f);
}

TEST(QuantizationConfig, MinusOneToOne) {
  QuantizationConfig c(-1.0f, 1.0f);
  EXPECT_EQ(Bits(c.getScale()), Bits(2.0f / 255.0f));
  EXPECT_EQ(c.getZeroPoint(), 127);
  EXPECT_EQ(c.invQuantization(127), 0.0f);
}

TEST(QuantizationConfig, DegenerateRangesGiveZeroScaleAndZeroPoint) {
  QuantizationConfig both_zero(0.0f, 0.0f);
  EXPECT_EQ(both_zero.getScale(), 0.0f);
  EXPECT_EQ(both_zero.getZeroPoint(), 0);
  QuantizationConfig inverted(2.0f, -1.0f);  // min positive, max not positive
  EXPECT_EQ(inverted.getScale(), 0.0f);
  EXPECT_EQ(inverted.getZeroPoint(), 0);
}

TEST(QuantizationConfig, RangeIsWidenedToContainZero) {
  QuantizationConfig above(2.0f, 4.0f);
  EXPECT_EQ(above.getScale(), 4.0f / 255.0f);
  EXPECT_EQ(above.getZeroPoint(), 0);
  QuantizationConfig below(-4.0f, -2.0f);
  EXPECT_EQ(below.getScale(), 4.0f / 255.0f);
  EXPECT_EQ(below.getZeroPoint(), 255);
  // The stored bounds stay as given.
  EXPECT_EQ(above.getMin(), 2.0f);
  EXPECT_EQ(below.getMax(), -2.0f);
}

TEST(QuantizationConfig, UpdateWithValueOnlyWidens) {
  QuantizationConfig c(-1.0f, 1.0f);
  c.update(0.5f);
  EXPECT_EQ(c.getMin(), -1.0f);
  EXPECT_EQ(c.getMax(), 1.0f);
  c.update(3.0f);
  EXPECT_EQ(c.getMax(), 3.0f);
  EXPECT_EQ(c.getScale(), 4.0f / 255.0f);
  c.update(-2.0f);
  EXPECT_EQ(c.getMin(), -2.0f);
  EXPECT_EQ(c.getMax(), 3.0f);
}

TEST(QuantizationConfig, UpdateWithBoundsSetsExactly) {
  QuantizationConfig c(-10.0f, 10.0f);
  c.update(0.0f, 25.5f);
  EXPECT_EQ(c.getMin(), 0.0f);
  EXPECT_EQ(c.getMax(), 25.5f);
  EXPECT_EQ(c.getScale(), 0.1f);
  EXPECT_EQ(c.getZeroPoint(), 0);
}

TEST(INT8Config, NewConfigIsEmpty) {
  INT8Config c;
  EXPECT_TRUE(c.DataConfigs().empty());
  EXPECT_TRUE(c.WeightConfigs().empty());
}

TEST(INT8Config, AddReplacesAndRecordsAreLive) {
  INT8Config c;
  c.addDataConfig("x", -1.0f, 1.0f);
  c.addDataConfig("x", 0.0f, 25.5f);
  ASSERT_TRUE(c.HasDataConfig("x"));
  QuantizationConfig* r = c.GetDataConfig("x");
  EXPECT_EQ(r->getMin(), 0.0f);
  r->update(-5.0f, 5.0f);
  EXPECT_EQ(c.GetDataConfig("x")->getMax(), 5.0f);
  EXPECT_EQ(c.DataConfigs().size(), 1u);
}

TEST(INT8Config, WeightRecordsPerLayerWeightAndChannel) {
  INT8Config c;
  c.addWeightConfig("conv", 0, 2, -1.0f, 1.0f);
  c.addWeightConfig("conv", 0, 0, -3.0f, 3.0f);
  c.addWeightConfig("conv", 1, 0, 0.0f, 1.0f);
  std::vector<QuantizationConfig>* w = c.GetWeightConfig("conv", 0);
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(w->size(), 3u);
  EXPECT_EQ((*w)[0].getMax(), 3.0f);
  EXPECT_EQ((*w)[2].getMin(), -1.0f);
  EXPECT_EQ(c.GetWeightConfig("conv", 1)->size(), 1u);
  EXPECT_EQ(c.GetWeightConfig("fc", 0), nullptr);
}

}  // namespace
}  // namespace qzdl
