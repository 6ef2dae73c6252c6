#include "runtime/kernels/conv_dnnl.h"

#if defined(QZDL_HAVE_DNNL)
#include <omp.h>

#include <algorithm>
#include <deque>
#include <dnnl.hpp>
#include <unordered_map>
#include <vector>

#include "runtime/data.h"
#include "runtime/kernels/parallel.h"
#endif

namespace qzdl {

#if defined(QZDL_HAVE_DNNL)

namespace {

using dnnl::memory;
using tag = dnnl::memory::format_tag;
using Args = std::unordered_map<int, memory>;

// Chunks of output channels: only for single-group convolutions of small
// batches, at least kMinChunk channels each (a multiple of 16), aiming at
// kMinItems work items.
constexpr int kMinChunk = 32;
constexpr int kMinItems = 8;
constexpr int kPlainSrcChannels = 4;

dnnl::engine& CpuEngine() {
  static dnnl::engine engine(dnnl::engine::kind::cpu, 0);
  return engine;
}

memory::desc Desc(const memory::dims& dims, tag t) {
  return memory::desc(dims, memory::data_type::f32, t);
}

memory Unbound(const memory::desc& md) { return memory(md, CpuEngine(), DNNL_MEMORY_NONE); }

memory Bound(const memory::desc& md, AlignedBuffer* buf) {
  return memory(md, CpuEngine(), buf->Reserve(std::max<size_t>(md.get_size(), 64)));
}

// 8 or 16 when md is the nChw8c / nChw16c form of [1, c, h, w] with c a
// multiple of the block, 1 when it is channels-last (nhwc), else 0.
int BlockOf(const memory::desc& md, const memory::dims& dims) {
  if (md == Desc(dims, tag::nhwc)) return 1;
  for (int block : {16, 8}) {
    if (dims[1] % block != 0) continue;
    if (md == Desc(dims, block == 16 ? tag::nChw16c : tag::nChw8c)) return block;
  }
  return 0;
}

// Sets the calling thread's OpenMP thread count for the scope.
class ThreadCountScope {
 public:
  explicit ThreadCountScope(int n) : saved_(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~ThreadCountScope() { omp_set_num_threads(saved_); }

 private:
  int saved_;
};

}  // namespace

struct DnnlConvolution::Impl {
  // One primitive per distinct chunk size.
  struct Part {
    int channels = 0;
    ConvGeometry pg;  // the part's geometry: a band of rows has its own height and pads
    dnnl::convolution_forward conv;
    dnnl::reorder wei_reorder, dst_reorder;
    bool reorder_wei = false, reorder_dst = false;
    memory::desc src_md, user_wei_md, wei_md, user_dst_md, dst_md;
  };
  struct Chunk {
    int first = 0, part = 0;
    int row0 = 0, in_row0 = 0;  // row bands: first output row, first input row read
    memory user_wei, wei, user_bias;
    AlignedBuffer wei_buf;
  };
  // Per thread: a stream, buffers and argument lists, built once.
  struct Slot {
    dnnl::stream stream{CpuEngine()};
    AlignedBuffer dst_buf, scratch_buf;
    memory user_src, src, scratch;
    std::vector<memory> user_dst;  // per chunk
    Args src_args;
    std::vector<Args> conv_args, dst_args, wei_args;  // per chunk
  };

  ConvGeometry g;
  bool bias = false;
  bool reorder_src = false;
  bool bands = false;  // work split into bands of output rows, not chunks of channels
  size_t src_image_bytes = 0;
  std::vector<Part> parts;
  std::deque<Chunk> chunks;  // a deque: its buffers cannot move
  std::vector<std::unique_ptr<Slot>> slots;
  dnnl::reorder src_reorder;
  AlignedBuffer src_buf;  // every image in oneDNN's layout
  std::string impl_name;
  const float* reordered_from = nullptr;  // the weights of the last run
  int src_block = 0, dst_block = 0;       // see SrcBlock / DstBlock
  bool src_blocked = false, dst_blocked = false;

  // Creates the primitive for `channels` output channels of geometry pg
  // (g, or a band of its rows); src_md may be "any" (first part) or the
  // layout the first part chose; the output is "any" or, with `nhwc_dst`,
  // channels-last.
  bool MakePart(const ConvGeometry& pg, int channels, const memory::desc& src_md, bool nhwc_dst,
                Part* part, size_t* scratch);
  // At a small batch, where the library computes the whole image in
  // channels-last, splits the work into bands of output rows (each band a
  // primitive over the input rows it reads, with the pads that fall in it)
  // instead of chunks of output channels: every primitive then computes
  // all channels, and each band is one piece of the image in channels-last,
  // so the output can be handed on in that layout. Sets *src_md to
  // channels-last; false (nothing kept) where it does not apply.
  bool MakeBands(memory::desc* src_md, size_t* scratch);
};

bool DnnlConvolution::Impl::MakeBands(memory::desc* src_md, size_t* scratch) {
  // Every band reads all the weights: only where they are smaller than the
  // input image.
  if (int64_t(g.out_c) * g.InPerGroup() * g.KernelArea() > int64_t(g.in_c) * g.InPlane())
    return false;
  const int count = std::min(g.out_h, (kMinItems + g.batch - 1) / g.batch);
  if (count < 2) return false;
  const memory::desc nhwc_src = Desc({1, g.in_c, g.in_h, g.in_w}, tag::nhwc);
  const std::string name = impl_name;  // the probe's and failed bands' names do not stay
  struct Band {
    int part, row0, in_row0;
  };
  std::vector<Part> made;
  std::vector<Band> bands;
  size_t need = 0;
  auto plan = [&] {
    // The whole image, as the library would lay it out.
    Part probe;
    if (!MakePart(g, g.out_c, Desc({1, g.in_c, g.in_h, g.in_w}, tag::any), false, &probe, &need) ||
        probe.src_md != nhwc_src || probe.dst_md != Desc({1, g.out_c, g.out_h, g.out_w}, tag::nhwc))
      return false;
    impl_name = name;
    const int rows = (g.out_h + count - 1) / count;
    for (int r0 = 0; r0 < g.out_h; r0 += rows) {
      const int r1 = std::min(g.out_h, r0 + rows);
      const int in0 = r0 * g.stride_h - g.pad_top;
      const int in1 = (r1 - 1) * g.stride_h - g.pad_top + g.ExtentH();
      const int a = std::max(0, in0), b = std::min(g.in_h, in1);
      if (b <= a) return false;  // a band entirely in the padding
      ConvGeometry pg = g;
      pg.pad_top = std::max(0, -in0);
      pg.pad_bottom = std::max(0, in1 - g.in_h);
      pg.in_h = b - a;
      pg.out_h = r1 - r0;
      int part = -1;
      for (size_t p = 0; p < made.size(); ++p)
        if (made[p].pg == pg) part = static_cast<int>(p);
      if (part < 0) {
        made.emplace_back();
        if (!MakePart(pg, g.out_c, Desc({1, g.in_c, pg.in_h, g.in_w}, tag::nhwc), true,
                      &made.back(), &need))
          return false;
        part = static_cast<int>(made.size()) - 1;
      }
      bands.push_back({part, r0, a});
    }
    return true;
  };
  if (!plan()) {
    impl_name = name;
    return false;
  }
  parts = std::move(made);
  for (const Band& band : bands) {
    chunks.emplace_back();
    chunks.back().part = band.part;
    chunks.back().row0 = band.row0;
    chunks.back().in_row0 = band.in_row0;
  }
  *scratch = std::max(*scratch, need);
  *src_md = nhwc_src;
  return true;
}

bool DnnlConvolution::Impl::MakePart(const ConvGeometry& pg, int channels,
                                     const memory::desc& src_md, bool nhwc_dst, Part* part,
                                     size_t* scratch) {
  const int group_out = channels / g.group;
  const memory::dims dst_dims{1, channels, pg.out_h, pg.out_w};
  const memory::dims wei_dims =
      g.group == 1 ? memory::dims{channels, g.in_c, g.kernel_h, g.kernel_w}
                   : memory::dims{g.group, group_out, g.InPerGroup(), g.kernel_h, g.kernel_w};
  const memory::dims strides{g.stride_h, g.stride_w};
  const memory::dims dilates{g.dilation_h - 1, g.dilation_w - 1};
  const memory::dims pad_l{pg.pad_top, pg.pad_left}, pad_r{pg.pad_bottom, pg.pad_right};
  const memory::desc bias_md = Desc({channels}, tag::a);
  const memory::desc wei_any = Desc(wei_dims, tag::any);
  const memory::desc dst_any = Desc(dst_dims, nhwc_dst ? tag::nhwc : tag::any);
  dnnl::primitive_attr attr;
  attr.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  dnnl::convolution_forward::primitive_desc pd;
  try {
#if DNNL_VERSION_MAJOR >= 3
    pd = dnnl::convolution_forward::primitive_desc(CpuEngine(), dnnl::prop_kind::forward_inference,
                                                   dnnl::algorithm::convolution_direct, src_md,
                                                   wei_any, bias ? bias_md : memory::desc(),
                                                   dst_any, strides, dilates, pad_l, pad_r, attr);
#else
    const auto kind = dnnl::prop_kind::forward_inference;
    const auto algo = dnnl::algorithm::convolution_direct;
    auto d = bias ? dnnl::convolution_forward::desc(kind, algo, src_md, wei_any, bias_md, dst_any,
                                                    strides, dilates, pad_l, pad_r)
                  : dnnl::convolution_forward::desc(kind, algo, src_md, wei_any, dst_any, strides,
                                                    dilates, pad_l, pad_r);
    pd = dnnl::convolution_forward::primitive_desc(d, attr, CpuEngine());
#endif
  } catch (const dnnl::error&) {
    return false;
  }
  const std::string name = pd.impl_info_str();
  // The reference implementations are far slower than our own GEMM path.
  if (name.rfind("ref", 0) == 0) return false;
  if (impl_name.empty()) impl_name = name;
  part->channels = channels;
  part->pg = pg;
  part->conv = dnnl::convolution_forward(pd);
  part->user_wei_md = Desc(wei_dims, g.group == 1 ? tag::oihw : tag::goihw);
  // NCHW with the whole image's strides: a band of rows is a strided piece.
  part->user_dst_md =
      memory::desc(dst_dims, memory::data_type::f32,
                   memory::dims{int64_t(channels) * g.OutPlane(), g.OutPlane(), g.out_w, 1});
  part->src_md = pd.src_desc();
  part->wei_md = pd.weights_desc();
  part->dst_md = pd.dst_desc();
  *scratch = std::max(*scratch, pd.scratchpad_desc().get_size());
  auto make_reorder = [&](const memory::desc& from, const memory::desc& to) {
    dnnl::reorder::primitive_desc rpd(CpuEngine(), from, CpuEngine(), to, attr);
    *scratch = std::max(*scratch, rpd.scratchpad_desc().get_size());
    return dnnl::reorder(rpd);
  };
  part->reorder_wei = part->wei_md != part->user_wei_md;
  part->reorder_dst = part->dst_md != part->user_dst_md;
  if (part->reorder_wei) part->wei_reorder = make_reorder(part->user_wei_md, part->wei_md);
  if (part->reorder_dst) part->dst_reorder = make_reorder(part->dst_md, part->user_dst_md);
  return true;
}

DnnlConvolution::DnnlConvolution() = default;
DnnlConvolution::~DnnlConvolution() = default;

bool DnnlConvolution::Available() { return true; }

bool DnnlConvolution::Configure(const ConvGeometry& g, bool bias) {
  impl_.reset();
  auto impl = std::make_unique<Impl>();
  Impl& m = *impl;
  m.g = g;
  m.bias = bias;
  // Chunks of output channels (a shape-only rule, see kMinChunk).
  int chunk = g.out_c;
  if (g.group == 1 && g.batch < kMinItems && g.out_c >= 2 * kMinChunk) {
    const int want = std::min((kMinItems + g.batch - 1) / g.batch, g.out_c / kMinChunk);
    chunk = ((g.out_c + want - 1) / want + 15) / 16 * 16;
  }
  const memory::desc user_src_md = Desc({1, g.in_c, g.in_h, g.in_w}, tag::nchw);
  // With very few input channels (image inputs) oneDNN reads NCHW directly
  // faster than it reorders into channel blocks padded to 16.
  const bool plain_src = g.group == 1 && g.in_c <= kPlainSrcChannels;
  memory::desc src_md = plain_src ? user_src_md : Desc({1, g.in_c, g.in_h, g.in_w}, tag::any);
  size_t scratch = 0;
  dnnl::primitive_attr attr;
  attr.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  {
    // Blocking for one thread: the primitives run serially (see the header).
    ThreadCountScope one(1);
    if (chunk < g.out_c && !plain_src) m.bands = m.MakeBands(&src_md, &scratch);
    for (int first = 0; first < g.out_c && !m.bands; first += chunk) {
      const int channels = std::min(chunk, g.out_c - first);
      int part = -1;
      for (size_t p = 0; p < m.parts.size(); ++p)
        if (m.parts[p].channels == channels) part = static_cast<int>(p);
      if (part < 0) {
        // Later parts take the input layout the first one chose.
        m.parts.emplace_back();
        bool made = m.MakePart(g, channels, src_md, false, &m.parts.back(), &scratch);
        if (!made && plain_src && m.parts.size() == 1) {
          src_md = Desc({1, g.in_c, g.in_h, g.in_w}, tag::any);
          made = m.MakePart(g, channels, src_md, false, &m.parts.back(), &scratch);
        }
        if (!made) return false;
        src_md = m.parts.front().src_md;
        part = static_cast<int>(m.parts.size()) - 1;
      }
      m.chunks.emplace_back();
      m.chunks.back().first = first;
      m.chunks.back().part = part;
    }
    m.reorder_src = src_md != user_src_md;
    if (m.reorder_src) {
      dnnl::reorder::primitive_desc rpd(CpuEngine(), user_src_md, CpuEngine(), src_md, attr);
      scratch = std::max(scratch, rpd.scratchpad_desc().get_size());
      m.src_reorder = dnnl::reorder(rpd);
    }
  }
  m.src_image_bytes = src_md.get_size();
  m.src_block = m.reorder_src ? BlockOf(src_md, {1, g.in_c, g.in_h, g.in_w}) : 0;
  {
    const Impl::Part& first_part = m.parts.front();
    auto block_of = [&](const Impl::Part& p) {
      return BlockOf(p.dst_md, {1, p.channels, p.pg.out_h, p.pg.out_w});
    };
    m.dst_block = block_of(first_part);
    for (const Impl::Part& p : m.parts)
      if (block_of(p) != m.dst_block) m.dst_block = 0;
    // Channels-last chunks of channels are not pieces of the image's layout
    // (the library's fast primitives write no strided outputs); bands of
    // rows are.
    if (m.dst_block == 1 && m.chunks.size() > 1 && !m.bands) m.dst_block = 0;
    for (const Impl::Chunk& c : m.chunks)
      if (m.dst_block > 1 && c.first % m.dst_block != 0) m.dst_block = 0;
  }
  if (m.reorder_src) m.src_buf.Reserve(std::max<size_t>(m.src_image_bytes * g.batch, 64));
  for (Impl::Chunk& c : m.chunks) {
    const Impl::Part& p = m.parts[c.part];
    c.user_wei = Unbound(p.user_wei_md);
    c.wei = p.reorder_wei ? Bound(p.wei_md, &c.wei_buf) : c.user_wei;
    c.user_bias = Unbound(Desc({p.channels}, tag::a));
  }
  size_t dst_bytes = 64;
  for (const Impl::Part& p : m.parts) dst_bytes = std::max(dst_bytes, p.dst_md.get_size());
  const memory::desc scratch_md =
      Desc({static_cast<memory::dim>(std::max<size_t>(scratch, 4) / 4)}, tag::a);
  const int threads = std::max(1, omp_get_max_threads());
  for (int t = 0; t < threads; ++t) {
    m.slots.push_back(std::make_unique<Impl::Slot>());
    Impl::Slot& s = *m.slots.back();
    s.scratch = Bound(scratch_md, &s.scratch_buf);
    s.user_src = Unbound(user_src_md);
    s.src = m.reorder_src ? Unbound(src_md) : s.user_src;
    s.src_args = {
        {DNNL_ARG_FROM, s.user_src}, {DNNL_ARG_TO, s.src}, {DNNL_ARG_SCRATCHPAD, s.scratch}};
    void* dst_buf = s.dst_buf.Reserve(dst_bytes);
    for (const Impl::Chunk& c : m.chunks) {
      const Impl::Part& p = m.parts[c.part];
      s.user_dst.push_back(Unbound(p.user_dst_md));
      const memory dst = p.reorder_dst ? memory(p.dst_md, CpuEngine(), dst_buf) : s.user_dst.back();
      Args conv{{DNNL_ARG_SRC, s.src},
                {DNNL_ARG_WEIGHTS, c.wei},
                {DNNL_ARG_DST, dst},
                {DNNL_ARG_SCRATCHPAD, s.scratch}};
      if (bias) conv[DNNL_ARG_BIAS] = c.user_bias;
      s.conv_args.push_back(conv);
      s.dst_args.push_back({{DNNL_ARG_FROM, dst},
                            {DNNL_ARG_TO, s.user_dst.back()},
                            {DNNL_ARG_SCRATCHPAD, s.scratch}});
      s.wei_args.push_back(
          {{DNNL_ARG_FROM, c.user_wei}, {DNNL_ARG_TO, c.wei}, {DNNL_ARG_SCRATCHPAD, s.scratch}});
    }
  }
  impl_ = std::move(impl);
  return true;
}

void DnnlConvolution::Run(const float* x, const float* w, const float* b, float* y,
                          const Epilogue& e, bool same_weights, int64_t y_image) {
  Impl& m = *impl_;
  const ConvGeometry& g = m.g;
  auto handle = [](const float* p) { return const_cast<float*>(p); };
  const int64_t kk = g.KernelArea(), in_image = int64_t(g.in_c) * g.InPlane();
  const int64_t plane = g.OutPlane();
  const int64_t out_image = y_image != 0 ? y_image : int64_t(g.out_c) * plane;
  for (Impl::Chunk& c : m.chunks) {
    c.user_wei.set_data_handle(handle(w + int64_t(c.first) * g.InPerGroup() * kk));
    if (m.bias) c.user_bias.set_data_handle(handle(b + c.first));
  }
  const int chunks = static_cast<int>(m.chunks.size());
  const int64_t items = int64_t(g.batch) * chunks;
  char* src_buf = static_cast<char*>(m.src_buf.get());
  const int threads = static_cast<int>(m.slots.size());
  // Inside the items every oneDNN call runs on the calling thread. Each
  // stream is waited for before its thread leaves the item.
  bool reorder_wei = false;
  for (const Impl::Part& p : m.parts) reorder_wei |= p.reorder_wei;
  if (same_weights && m.reordered_from == w) reorder_wei = false;
  m.reordered_from = w;
  if (reorder_wei) {
    ParallelItems(chunks, threads, [&](int64_t c, int slot) {
      Impl::Slot& s = *m.slots[slot];
      const Impl::Part& p = m.parts[m.chunks[c].part];
      if (!p.reorder_wei) return;
      p.wei_reorder.execute(s.stream, s.wei_args[c]);
      s.stream.wait();
    });
  }
  if (m.reorder_src && !m.src_blocked) {
    ParallelItems(g.batch, threads, [&](int64_t n, int slot) {
      Impl::Slot& s = *m.slots[slot];
      s.user_src.set_data_handle(handle(x + n * in_image));
      s.src.set_data_handle(src_buf + n * m.src_image_bytes);
      m.src_reorder.execute(s.stream, s.src_args);
      s.stream.wait();
    });
  }
  ParallelItems(items, threads, [&](int64_t item, int slot) {
    Impl::Slot& s = *m.slots[slot];
    const int n = static_cast<int>(item / chunks), c = static_cast<int>(item % chunks);
    const Impl::Chunk& ch = m.chunks[c];
    const Impl::Part& p = m.parts[ch.part];
    // A band reads from its first input row on, in channels-last.
    const int64_t in_off = int64_t(ch.in_row0) * g.in_w * g.in_c;
    if (m.reorder_src && !m.src_blocked) {
      s.src.set_data_handle(src_buf + n * m.src_image_bytes + in_off * sizeof(float));
    } else {
      s.src.set_data_handle(handle(x + n * in_image + in_off));
    }
    // A chunk of whole channel blocks is one block of the image in both
    // layouts, at the same offset; a band of rows is one piece of it in
    // channels-last, and rows of every channel plane in NCHW.
    const int first = ch.first;
    const int64_t band_plane = int64_t(p.pg.out_h) * g.out_w;
    float* image = y + n * out_image;
    float* out = image + int64_t(first) * plane + int64_t(ch.row0) * g.out_w;
    s.user_dst[c].set_data_handle(out);
    const int64_t lib_off = m.bands ? int64_t(ch.row0) * g.out_w * g.out_c : int64_t(first) * plane;
    if (p.reorder_dst) {
      float* lib = m.dst_blocked ? image + lib_off : static_cast<float*>(s.dst_buf.get());
      s.conv_args[c][DNNL_ARG_DST].set_data_handle(lib);
    }
    p.conv.execute(s.stream, s.conv_args[c]);
    if (p.reorder_dst && !m.dst_blocked) p.dst_reorder.execute(s.stream, s.dst_args[c]);
    s.stream.wait();
    if (e.Active() && m.dst_blocked) {
      ApplyEpilogue(e, image + lib_off, int64_t(p.channels) * band_plane);
    } else if (e.Active()) {
      for (int o = 0; o < p.channels; ++o)
        ApplyEpilogue(e, out + int64_t(o) * plane, band_plane, first + o);
    }
  });
}

int DnnlConvolution::SrcBlock() const { return impl_ ? impl_->src_block : 0; }
int DnnlConvolution::DstBlock() const { return impl_ ? impl_->dst_block : 0; }

void DnnlConvolution::SetBlocked(bool src, bool dst) {
  if (!impl_) return;
  impl_->src_blocked = src && impl_->src_block != 0;
  impl_->dst_blocked = dst && impl_->dst_block != 0;
}

std::string DnnlConvolution::ImplName() const {
  if (!impl_) return "";
  const Impl& m = *impl_;
  const size_t chunks = m.chunks.size();
  std::string name = m.impl_name;
  if (chunks > 1)
    name += " x" + std::to_string(chunks) + (m.bands ? " row bands" : " channel chunks");
  if (m.src_blocked) name += ", input in blocks of " + std::to_string(m.src_block);
  if (m.dst_blocked) name += ", output in blocks of " + std::to_string(m.dst_block);
  return name;
}

int64_t DnnlConvolution::Items() const {
  return impl_ ? int64_t(impl_->g.batch) * int64_t(impl_->chunks.size()) : 0;
}

#else  // !QZDL_HAVE_DNNL

struct DnnlConvolution::Impl {};
DnnlConvolution::DnnlConvolution() = default;
DnnlConvolution::~DnnlConvolution() = default;
bool DnnlConvolution::Available() { return false; }
bool DnnlConvolution::Configure(const ConvGeometry&, bool) { return false; }
void DnnlConvolution::Run(const float*, const float*, const float*, float*, const Epilogue&, bool,
                          int64_t) {}
int DnnlConvolution::SrcBlock() const { return 0; }
int DnnlConvolution::DstBlock() const { return 0; }
void DnnlConvolution::SetBlocked(bool, bool) {}
std::string DnnlConvolution::ImplName() const { return ""; }
int64_t DnnlConvolution::Items() const { return 0; }

#endif

}  // namespace qzdl
