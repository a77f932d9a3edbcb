"""The exceptions of the zebtrk package (raised by its compiled half too).
They show as zebtrk.<name>, where the package exports them."""


class Error(Exception):
    """A failure of the recorder, its service or the plug-in."""


class MovieNotFoundError(Error, KeyError, FileNotFoundError):
    """No movie of that name (a KeyError and a FileNotFoundError)."""

    def __str__(self):
        # KeyError would show the message quoted, like a key.
        return str(self.args[0]) if self.args else ""


class ServiceError(Error, ConnectionError):
    """The movie service does not answer; the message says how to start it."""


class PermissionDeniedError(Error, PermissionError):
    """A deletion was refused for lack of permission."""


for _error in (Error, MovieNotFoundError, ServiceError, PermissionDeniedError):
    _error.__module__ = "zebtrk"
