from orvo_inference.em_invoker.em_invoker import BaseEMInvoker as BaseEMInvoker
from orvo_inference.em_invoker.em_invoker import SupportsInvoke as SupportsInvoke

class LexicalEMInvoker(BaseEMInvoker):
    """Offline, lexical embeddings: hashed words and character trigrams."""

    def __init__(self, dimensions: int = 1024) -> None: ...

class OpenAIEMInvoker(BaseEMInvoker):
    """An embedding model behind an OpenAI-compatible server."""

    def __init__(
        self,
        model: str,
        base_url: str,
        api_key: str = "",
        batch_size: int = 64,
        *,
        connect_timeout: float | None = None,
        timeout: float | None = None,
        total_timeout: float | None = None,
        max_retries: int | None = None,
        ca_file: str | None = None,
        ca_dir: str | None = None,
        min_tls_version: str | None = None,
    ) -> None: ...
