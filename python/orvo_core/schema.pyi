from collections.abc import Generator, Iterator, Mapping, MutableMapping
from typing import Any, Generic, TypeVar

_T = TypeVar("_T")

class PendingCall(Generic[_T]):
    """The work of an orvo operation; it runs when awaited."""

    def __await__(self) -> Generator[Any, None, _T]: ...

class Object:
    """The base of the bound classes."""

class MetadataView(MutableMapping[str, Any]):
    """A chunk's metadata, read and written in place."""

    def __getitem__(self, key: str) -> Any: ...
    def __setitem__(self, key: str, value: Any) -> None: ...
    def __delitem__(self, key: str) -> None: ...
    def __len__(self) -> int: ...
    def __iter__(self) -> Iterator[str]: ...
    def copy(self) -> dict[str, Any]: ...

class Chunk(Object):
    """One retrieved piece of a document."""

    content: str
    id: str
    score: float | None
    def __init__(
        self,
        content: str = "",
        metadata: Mapping[str, Any] | None = None,
        id: str = "",
        score: float | None = None,
    ) -> None: ...
    @property
    def metadata(self) -> MetadataView: ...
    @metadata.setter
    def metadata(self, value: Mapping[str, Any] | None) -> None: ...
    def model_dump(self) -> dict[str, Any]: ...

class Component(Object):
    """The base of every pipeline component."""

    def run(self, **kwargs: Any) -> PendingCall[Any]:
        """Drives one invocation: the start message, `_run`, the finish message."""
