from collections.abc import Callable, Mapping, Sequence
from typing import Any, ClassVar, Protocol, runtime_checkable

from orvo_core.event import SupportsEmit
from orvo_core.schema import Object, PendingCall

# A turn of history: a (role, content) tuple, a [role, content] list or a
# {"role": ..., "content": ...} dict.
_History = Sequence[Any] | None

class UsesLM:
    """Marks a component that uses a language model."""

    def __init__(self) -> None: ...

def estimate_tokens(text: str) -> int:
    """One token per four characters, rounded up."""

class BudgetReport:
    """What a context budget did to a context."""

    @property
    def budget(self) -> int: ...
    @property
    def tokens(self) -> int: ...
    @property
    def pieces(self) -> int: ...
    @property
    def truncated(self) -> int | None: ...
    @property
    def dropped(self) -> list[int]: ...
    def changed(self) -> bool: ...

class ContextBudget:
    """Caps the stuffed context of a prompt at a number of tokens."""

    class Policy:
        DROP: ClassVar[ContextBudget.Policy]
        TRUNCATE: ClassVar[ContextBudget.Policy]
        @property
        def name(self) -> str: ...

    max_tokens: int
    policy: ContextBudget.Policy
    variable: str
    separator: str
    def __init__(
        self,
        max_tokens: int,
        policy: ContextBudget.Policy = ...,
        variable: str = "context",
        *,
        separator: str = "\n\n",
        count_tokens: Callable[[str], int] | None = None,
    ) -> None: ...
    def apply(self, context: Any) -> tuple[str, BudgetReport]: ...

class PromptTemplate:
    """System and user templates with {named} placeholders."""

    context_budget: ContextBudget | None
    def __init__(
        self,
        system_template: str = "",
        user_template: str = "",
        *,
        context_budget: ContextBudget | None = None,
    ) -> None: ...
    @property
    def system_template(self) -> str: ...
    @property
    def user_template(self) -> str: ...
    def variables(self) -> list[str]: ...

class BaseOutputParser(Object):
    def parse(self, text: str) -> Any: ...

class TextOutputParser(BaseOutputParser):
    def __init__(self) -> None: ...

class JsonOutputParser(BaseOutputParser):
    def __init__(self) -> None: ...

class BaseLMInvoker(Object): ...

class OpenAILMInvoker(BaseLMInvoker):
    """A chat model behind an OpenAI-compatible server."""

    def __init__(
        self,
        model: str,
        base_url: str,
        api_key: str = "",
        parameters: Mapping[str, Any] | None = None,
        *,
        connect_timeout: float | None = None,
        timeout: float | None = None,
        total_timeout: float | None = None,
        max_retries: int | None = None,
        ca_file: str | None = None,
        ca_dir: str | None = None,
        min_tls_version: str | None = None,
    ) -> None: ...

@runtime_checkable
class SupportsProcess(Protocol):
    """What components need of an `lm_request_processor`: an `LMRequestProcessor` or any object
    like this."""

    async def process(
        self,
        prompt_kwargs: dict[str, Any],
        history: _History = None,
        *,
        event_emitter: SupportsEmit | None = None,
        system_multimodal_contents: Any = None,
        user_multimodal_contents: Any = None,
    ) -> Any: ...

class LMRequestProcessor(Object):
    """Turns prompt variables into a language-model request and parses the reply."""

    def __init__(
        self,
        prompt: PromptTemplate | None = None,
        lm_invoker: BaseLMInvoker | None = None,
        output_parser: BaseOutputParser | None = None,
    ) -> None: ...
    def process(
        self,
        prompt_kwargs: dict[str, Any],
        history: _History = None,
        *,
        event_emitter: SupportsEmit | None = None,
        system_multimodal_contents: Any = None,
        user_multimodal_contents: Any = None,
    ) -> PendingCall[Any]: ...

class ExtractiveRequestProcessor(LMRequestProcessor):
    """An offline processor: extractive answers ("answer"), or lexical relevance judgements
    ("judge")."""

    def __init__(self, task: str, min_similarity: float = -1.0) -> None: ...
