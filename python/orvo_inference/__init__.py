"""Language-model request processors, embedding invokers and chat roles."""
