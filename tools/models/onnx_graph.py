"""Builds ONNX graphs node by node, without a deep-learning framework. Needs numpy and onnx."""
import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 17  # the first with LayerNormalization
IR_VERSION = 8  # readable by every ONNX Runtime since 1.11


def value_info(name, shape, element=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, element, shape)


class GraphBuilder:
    """Adds nodes and constants in the order of calls. A value is identified by its name, a string."""

    def __init__(self, quantized=False):
        """quantized: store the matrices of multiply_constant() with 8 bits."""
        self._nodes = []
        self._constants = {}
        self._quantized = quantized

    def node(self, operation, *inputs, name=None, **attributes):
        """Adds a node with one output and returns the output's name."""
        output = name or f"{operation.lower()}_{len(self._nodes)}"
        self._nodes.append(helper.make_node(operation, list(inputs), [output], **attributes))
        return output

    def nodes(self, operation, count, *inputs, **attributes):
        """Adds a node with several outputs and returns their names."""
        outputs = [f"{operation.lower()}_{len(self._nodes)}_{i}" for i in range(count)]
        self._nodes.append(helper.make_node(operation, list(inputs), outputs, **attributes))
        return outputs

    def constant(self, name, array):
        """Adds a tensor once per name and returns the name."""
        if name not in self._constants:
            self._constants[name] = numpy_helper.from_array(np.ascontiguousarray(array).reshape(np.shape(array)), name)
        return name

    def int64s(self, *values):
        return self.constant("int64s" + "".join(f"_{value}" for value in values), np.array(values, np.int64))

    def float32(self, value):
        return self.constant(f"float_{value!r}", np.array(value, np.float32))

    def multiply_constant(self, x, name, matrix):
        """Returns x @ matrix. With 8 bits each column has its own scale, and x is quantized when the graph runs."""
        matrix = np.asarray(matrix, np.float32)
        if not self._quantized:
            return self.node("MatMul", x, self.constant(name, matrix))
        largest = np.maximum(np.abs(matrix).max(axis=0), np.finfo(np.float32).tiny * 127)
        scale = (largest / 127).astype(np.float32)
        weights = np.clip(np.rint(matrix / scale), -127, 127).astype(np.int8)
        quantized, x_scale, x_zero = self.nodes("DynamicQuantizeLinear", 3, x)
        product = self.node(
            "MatMulInteger",
            quantized,
            self.constant(name + "/int8", weights),
            x_zero,
            self.constant(name + "/zero", np.zeros(scale.shape, np.int8)),
        )
        scales = self.node("Mul", x_scale, self.constant(name + "/scale", scale))
        return self.node("Mul", self.node("Cast", product, to=TensorProto.FLOAT), scales)

    def write(self, path, name, inputs, outputs, metadata):
        """Checks the graph and writes it. The same calls yield the same bytes."""
        graph = helper.make_graph(self._nodes, name, inputs, outputs, initializer=list(self._constants.values()))
        model = helper.make_model(
            graph, producer_name="palaver", ir_version=IR_VERSION, opset_imports=[helper.make_opsetid("", OPSET)]
        )
        helper.set_model_props(model, {key: str(metadata[key]) for key in metadata})
        onnx.checker.check_model(model)
        path.write_bytes(model.SerializeToString(deterministic=True))
