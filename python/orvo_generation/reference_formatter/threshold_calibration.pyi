from collections.abc import Iterable

class ThresholdSuggestion:
    """A threshold and how it does on its pairs."""

    @property
    def threshold(self) -> float: ...
    @property
    def precision(self) -> float: ...
    @property
    def recall(self) -> float: ...
    @property
    def f1(self) -> float: ...

def suggest_threshold(pairs: Iterable[tuple[float, bool]]) -> ThresholdSuggestion:
    """The threshold that best separates (score, relevant) pairs."""
