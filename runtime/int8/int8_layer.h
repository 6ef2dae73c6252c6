// The common frame of the 8-bit layers that compute on codes (docs/int8.md):
// a layer computes on codes only when every input and output is "int8";
// otherwise it runs as a float island. What the codes kernel needs from the
// grids (requantizers, tables) is made once, at the first forward that finds
// the layer's attribute tensors missing, and kept until a caller that
// changes the configuration deletes them and empties the maps. A forward
// that finds them present allocates nothing.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/int8/float_island_layer.h"
#include "runtime/int8/reference.h"
#include "runtime/net.h"

namespace qzdl {

class Int8Layer : public FloatIslandLayer {
 public:
  // Whether the next forward computes on codes.
  virtual bool ComputesInIntegers();
  // Builds the attribute tensors unless they are present.
  void EnsurePrepared() {
    if (!Prepared()) Prepare();
  }

 protected:
  void Run() override;
  // Whether the attribute tensors of the last Prepare are all present.
  virtual bool Prepared() = 0;
  // Makes the attribute tensors and the kernel's constants from the grids.
  virtual void Prepare() = 0;
  // The kernel on codes; inputs and outputs are "int8" and prepared.
  virtual void RunCodes() = 0;

  // The grid of a tensor in the configuration.
  CodeGrid GridOf(const Data<unsigned char>* t) const;
  bool HighAccuracy() const { return context()->high_accuracy; }

  // The attribute tensor `name` of the given dims, with storage.
  template <typename D>
  static D* Attr(std::map<std::string, D*>& attrs, const std::string& name,
                 const std::vector<int>& dims) {
    D*& t = attrs[name];
    if (t == nullptr) t = new D(name);
    t->Resize(dims);
    t->Reallocate();
    return t;
  }
  // "table": one 256-entry table per row, as a uint8 attribute [rows, 256].
  void StoreTables(const std::vector<CodeTable>& tables);
  bool HasTables() { return GetUint8AttrDatas().count("table") != 0; }
  // int32 "input_zero" [N], "multiplier" [N, 2] (each int64 multiplier's
  // high and low words) and "shift" [1] of a sum.
  void StoreSumAttrs(const std::vector<CodeGrid>& inputs, const SumQuantization& q);
  // int32 "input_zero" [N], "multiplier" [1] and "shift" [1] of a product.
  void StoreProductAttrs(const std::vector<CodeGrid>& inputs, const Requantizer& r);
};

// Prepares every layer of `net` that computes on codes, so that its first
// forward allocates nothing: a loaded model, or one whose configuration a
// caller changed (after deleting the attribute tensors), is ready to run.
// Returns how many layers were prepared.
int PrepareInt8Layers(Net<unsigned char>& net);

}  // namespace qzdl
