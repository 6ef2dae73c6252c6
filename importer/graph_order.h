// The order of the nodes of an ONNX graph.
#pragma once

namespace onnx {
class GraphProto;
}  // namespace onnx

namespace qzdl::onnx_import {

// Puts the nodes of `graph` in an order where every node comes after the
// nodes whose outputs it reads (ONNX asks for that order, but exporters and
// hand-edited files do not always keep it, and other runtimes accept such
// files). Nodes already in order keep their places; otherwise each place
// takes the earliest node of the file whose inputs are ready. Names that no
// node produces (graph inputs, initializers, misspelt names) count as ready,
// so that the reference check that follows reports them. The tensors a
// node's subgraphs read from the enclosing graph count as its inputs. A
// real cycle stops the import with one line naming a node on it:
//   node "b" (Add): input "t" depends on the node's own output (the graph has a cycle)
void SortNodes(onnx::GraphProto* graph);

}  // namespace qzdl::onnx_import
