from collections.abc import Sequence
from typing import Any

# A vector is a sequence of floats or any object with the buffer protocol (a numpy array, say);
# a batch of vectors is a sequence of them or a two-dimensional buffer.
_Vector = Sequence[float] | Any
_Vectors = Sequence[_Vector] | Any

def cosine(vector: _Vector, vectors: _Vectors) -> list[float]:
    """The cosine similarity of `vector` with each of `vectors`, in order."""
