"""The movies of a thermal camera recorder as NumPy arrays.

    drive = zebtrk.Drive()          # loads the plug-in, checks the service
    run = drive["12-Run A"]         # or drive["12"]
    stack = run.read()              # (frames, height, width) uint16

The package hosts the zebtrk plug-in (libzebtrk.so) like any zeb application:
the movies come from its "trk:" file system, so the movie service must run
(or ZEBTRK_ENABLE_EMULATOR be set, to serve the cache directory instead).
"""

import atexit as _atexit
import datetime as _dt
import operator as _operator

from ._errors import Error, MovieNotFoundError, PermissionDeniedError, ServiceError
from . import _zebtrk

__all__ = ["Drive", "Movie", "ChangeHandler", "Error", "MovieNotFoundError", "ServiceError",
           "PermissionDeniedError"]

# The plug-in's monitoring thread calls Python handlers: they are all removed
# before the interpreter finalises.
_atexit.register(_zebtrk.shutdown)

_EPOCH_1601 = _dt.datetime(1601, 1, 1, tzinfo=_dt.timezone.utc)


def _recorded(ticks):
    """The entry's recording time (100-ns ticks since 1601), or None."""
    return _EPOCH_1601 + _dt.timedelta(microseconds=ticks // 10) if ticks else None


def _time_code(text, year):
    """A start or end time text, "DDD:hh:mm:ss.ffffff" (normal mode) or
    "DDD:hh:mm:ss.mmm.uuu" (emulator), as a UTC datetime in `year`. None
    when the time is unknown (day 0) or the text is not a time."""
    try:
        day, hours, minutes, rest = text.split(":")
        seconds, _, fraction = rest.partition(".")
        micros = int(fraction.replace(".", "").ljust(6, "0")[:6])
        if int(day) < 1:
            return None
        return _dt.datetime(year, 1, 1, tzinfo=_dt.timezone.utc) + _dt.timedelta(
            days=int(day) - 1, hours=int(hours), minutes=int(minutes), seconds=int(seconds), microseconds=micros)
    except (ValueError, OverflowError):
        return None


def _start_and_end(start_text, end_text, recorded):
    """The start and end datetimes. The texts carry the day of the year but
    no year: the start is put in the last year in which it does not come
    after the recording time (a day's slack), the end in the first year in
    which it does not come before the start."""
    if recorded is None:
        return None, None
    start = _time_code(start_text, recorded.year)
    if start is not None and start > recorded + _dt.timedelta(days=1):
        start = _time_code(start_text, recorded.year - 1)
    end = _time_code(end_text, start.year if start else recorded.year)
    if start is not None and end is not None and end < start:
        end = _time_code(end_text, start.year + 1)
    return start, end


class Movie:
    """One movie of the drive: metadata as Python values, frames as arrays.

    movie[i] is frame i as a (height, width) array; movie[a:b:c] the frames
    of the slice as a (n, height, width) array; negative indices count from
    the end. Each access opens the movie, reads and closes it."""

    def __init__(self, record):
        self._record = record
        self.name = record["name"]
        self.number = int(self.name.split("-", 1)[0]) if self.name.split("-", 1)[0].isdigit() else None
        self.frames = record["frames"]
        self.width = record["width"]
        self.height = record["height"]
        self.size = record["size"]
        self.properties = dict(record["properties"])
        self.recorded = _recorded(record["time_ticks"])
        self.start, self.end = _start_and_end(record["start_time"], record["end_time"], self.recorded)
        # A duration whose end lies before its start wraps around in the
        # plug-in's unsigned arithmetic: it is not a duration then.
        us = record["duration_us"]
        self.duration = _dt.timedelta(microseconds=us) if us < 2**63 else None

    def __repr__(self):
        return f"<zebtrk.Movie {self.name!r}: {self.frames} frames of {self.width}x{self.height}>"

    def __len__(self):
        return self.frames

    @property
    def info(self):
        """The movie's information file (NAME:info) as text."""
        return _zebtrk.info_text(self.name)

    def _file(self):
        return _zebtrk.MovieFile(self.name)

    def read(self, out=None):
        """Every frame, as a (frames, height, width) uint16 array; into
        `out` when given (such an array, C-contiguous: reusing one saves the
        cost of fresh memory on repeated reads)."""
        if out is None:
            return self[:]
        if getattr(out, "shape", None) != (self.frames, self.height, self.width):
            raise ValueError(f"out must have the shape {(self.frames, self.height, self.width)}")
        return self._file().read_into(out, 0)

    def __getitem__(self, key):
        if isinstance(key, slice):
            first, stop, step = key.indices(self.frames)
            count = len(range(first, stop, step))
            if count == 0:
                first, step = 0, 1
            return self._file().read(first, count, step)
        try:
            index = _operator.index(key)
        except TypeError:
            raise TypeError(f"movie frames are indexed by int or slice, not {type(key).__name__}") from None
        if not -self.frames <= index < self.frames:
            raise IndexError(f"frame {index} is out of range: {self.name} has {self.frames} frames")
        return self._file().read(index % self.frames, 1)[0]

    def iter_frames(self, start=0, stop=None, step=1):
        """Yields (index, frame) for the frames of range(start, stop, step),
        reading one frame at a time through one open file: memory stays at
        one frame whatever the movie's size."""
        first, stop, step = slice(start, stop, step).indices(self.frames)
        indices = range(first, stop, step)
        if not indices:
            return
        movie = self._file()
        try:
            for index in indices:
                yield index, movie.read(index, 1)[0]
        finally:
            movie.close()


class ChangeHandler:
    """A registered change callback; remove() unregisters it (also done at exit)."""

    def __init__(self, callback):
        self.callback = callback
        self._id = _zebtrk.add_handler(callback)

    def remove(self):
        """Unregisters; once it returns the callback is not running and will not run again."""
        if self._id is not None:
            _zebtrk.remove_handler(self._id)
            self._id = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.remove()


class Drive:
    """The recorder's drive, through the plug-in.

    Drive() loads the plug-in (once per process) and, in normal mode, checks
    that the movie service answers: ServiceError (a ConnectionError) says how
    to start the simulator otherwise. With ZEBTRK_ENABLE_EMULATOR set when the
    plug-in is first loaded, the movies are those of the cache directory."""

    def __init__(self):
        self.emulator = _zebtrk.start()

    @property
    def present(self):
        """Whether a drive is there."""
        return _zebtrk.present()

    def movies(self):
        """The movies, in the drive's order."""
        return [Movie(record) for record in _zebtrk.movies()]

    def __iter__(self):
        return iter(self.movies())

    def __len__(self):
        return len(_zebtrk.movies())

    def __contains__(self, name):
        try:
            self[name]
        except MovieNotFoundError:
            return False
        return True

    def __getitem__(self, name):
        """The movie "12-Run A" (also "trk:///12-Run A", or "12" when only
        one movie has that number). MovieNotFoundError (a KeyError and a
        FileNotFoundError) names the movies that come close."""
        if isinstance(name, int) and not isinstance(name, bool):
            name = str(name)
        if not isinstance(name, str):
            raise TypeError(f"movies are looked up by name or number, not {type(name).__name__}")
        return Movie(_zebtrk.find(name, True))

    def remove(self, name):
        """Deletes the movie `name` (the exact name, no number shortcut)."""
        _zebtrk.remove(name.name if isinstance(name, Movie) else name)

    def on_change(self, callback):
        """Calls callback() whenever the movie list changes. It runs in the
        plug-in's monitoring thread (or the thread that removed a movie);
        what it raises goes to sys.unraisablehook. Returns a ChangeHandler."""
        return ChangeHandler(callback)

    def __repr__(self):
        mode = "emulator" if self.emulator else "service"
        return f"<zebtrk.Drive ({mode}, plug-in {_zebtrk.plugin_path()})>"
