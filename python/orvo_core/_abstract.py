"""Abstract operations of bound classes: instantiation needs an override, as with ABC."""


def require_override(base, name):
    """Makes `base` and its subclasses refuse instantiation unless `name` is overridden."""
    native_new = base.__new__

    def __new__(cls, *args, **kwargs):
        if getattr(cls, name) is getattr(base, name):
            raise TypeError(
                f"Can't instantiate abstract class {cls.__name__} with abstract method {name}"
            )
        return native_new(cls)

    base.__new__ = staticmethod(__new__)
