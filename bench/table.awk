# Prints bench/run's summary table from the results file that the benchmark
# programs append to (see ResultsReporter.h): one row per figure, the ceiling
# or reference measured in the same run, and their ratio.
#
# Input lines: NAME <TAB> NS_PER_ITERATION [<TAB> counter=value]...
# Variables: msgpack_note (text shown when the msgpack-c columns are missing).

BEGIN { FS = "\t" }

{
  name = $1
  if ($2 ~ /^error=/) { err[name] = substr($2, 7); next }
  ns[name] = $2 + 0
  for (i = 3; i <= NF; ++i) {
    split($i, kv, "=")
    c[name, kv[1]] = kv[2] + 0
  }
}

function have(n) { return (n in ns) }
function why(n) { return (n in err) ? "error: " err[n] : "not measured" }
function us(x) { return sprintf("%.1f us", x / 1000) }

# Frames per second of a frame-read benchmark (an iteration may be a piece).
function fps(n) { return 1e9 / ns[n] * c[n, "bytes"] / c[n, "frame_bytes"] }

function row(figure, value, reference, refvalue, ratio) {
  printf "%-44s %-24s %-34s %-22s %s\n", figure, value, reference, refvalue, ratio
}

function missing(figure, n, reference) { row(figure, why(n), reference, "", "-") }

function section(title) { printf "\n%s\n", title }

# The CPU time of the calling side per iteration next to the raw client's:
# steadier than wall time on a busy machine, and what the code itself costs.
function cpu(figure, n, r, label) {
  if (!have(n) || !have(r)) return
  row(figure, us(c[n, "cpu_ns"]), label, us(c[r, "cpu_ns"]), sprintf("%.2f", c[n, "cpu_ns"] / c[r, "cpu_ns"]))
}

END {
  row("FIGURE", "ACHIEVED", "CEILING / REFERENCE (same run)", "", "RATIO")

  section("1. Frame reads through trk: (ratio = achieved / ceiling)")
  split("320x240 640x512 1280x1024", sizes, " ")
  split("Whole Piece64K", modes, " ")
  for (s = 1; s <= 3; ++s) {
    S = sizes[s]
    b = "Ceiling/RawFrameExchange/" S
    a = "Ceiling/ShmFrameCopy/" S
    for (m = 1; m <= 2; ++m) {
      n = "Trk/FrameRead/" modes[m] "/" S
      fig = S (m == 1 ? " whole frames" : " 64 KiB pieces")
      if (!have(n)) { missing(fig, n, "(b)"); continue }
      f = fps(n)
      val = sprintf("%.0f fr/s %.2f GB/s", f, f * c[n, "frame_bytes"] / 1e9)
      if (have(b)) row(fig, val, "(b) raw exchange + frame copies", sprintf("%.0f fr/s", 1e9 / ns[b]), sprintf("%.2f", f * ns[b] / 1e9))
      else row(fig, val, "(b) " why(b), "", "-")
      if (have(a)) row("", "", "(a) memcpy out of the segment", sprintf("%.0f fr/s", 1e9 / ns[a]), sprintf("%.3f", f * ns[a] / 1e9))
      else row("", "", "(a) " why(a), "", "-")
      if (m == 1 && have(b)) row("", "reading thread CPU " us(c[n, "cpu_ns"]), "(b) client CPU per frame", us(c[b, "cpu_ns"]), sprintf("%.2f", c[n, "cpu_ns"] / c[b, "cpu_ns"]))
    }
  }

  section("6. The simulator's share of a whole-frame read (ratio = CPU / wall time per frame)")
  for (s = 1; s <= 3; ++s) {
    n = "Trk/FrameRead/Whole/" sizes[s]
    if (!have(n)) { missing(sizes[s] " simulator CPU", n, ""); continue }
    wall = ns[n]
    if ((n, "service_cpu_ns") in c)
      row(sizes[s] " simulator CPU per frame", us(c[n, "service_cpu_ns"]), "wall time per frame", us(wall), sprintf("%.2f", c[n, "service_cpu_ns"] / wall))
    else row(sizes[s] " simulator CPU per frame", "not measured (no pid)", "", "", "-")
    row(sizes[s] " plug-in process CPU per frame", us(c[n, "plugin_cpu_ns"]), "wall time per frame", us(wall), sprintf("%.2f", c[n, "plugin_cpu_ns"] / wall))
  }

  section("2. Request latency (ratio = achieved time / reference time)")
  n = "Trk/DetectDrive"
  if (!have(n)) missing("DetectDrive round trip", n, "")
  else {
    split("Ceiling/RawDetectDrive Ceiling/PingPong1Byte", refs, " ")
    split("raw exchange, same syscalls|1-byte ping-pong", labels, "|")
    for (r = 1; r <= 2; ++r) {
      if (have(refs[r])) row(r == 1 ? "DetectDrive round trip" : "", r == 1 ? us(ns[n]) : "", labels[r], us(ns[refs[r]]), sprintf("%.2f", ns[n] / ns[refs[r]]))
      else row(r == 1 ? "DetectDrive round trip" : "", us(ns[n]), labels[r] " " why(refs[r]), "", "-")
    }
    cpu("DetectDrive client CPU", n, "Ceiling/RawDetectDrive", "raw client CPU, same syscalls")
  }

  section("3. Codec, whole documents (ratio = our speed / msgpack-c's speed)")
  split("GetMovieInfoResponse Array1000Maps", docs, " ")
  split("Decode Encode", dirs, " ")
  for (d = 1; d <= 2; ++d) for (k = 1; k <= 2; ++k) {
    ours = "Codec/" dirs[k] "/Ours/" docs[d]
    theirs = "Codec/" dirs[k] "/MsgpackC/" docs[d]
    fig = dirs[k] " " docs[d] " (" c[ours, "bytes"] " B)"
    if (!have(ours)) { missing(fig, ours, ""); continue }
    val = sprintf("%s %.0f MB/s", us(ns[ours]), c[ours, "bytes"] / ns[ours] * 1e3)
    if (have(theirs)) row(fig, val, "msgpack-c unpack/pack", sprintf("%s %.0f MB/s", us(ns[theirs]), c[theirs, "bytes"] / ns[theirs] * 1e3), sprintf("%.2f", ns[theirs] / ns[ours]))
    else row(fig, val, "msgpack-c: " (msgpack_note != "" ? msgpack_note : why(theirs)), "", "-")
  }

  section("4. Listing and look-up, per cached movie (ratio = achieved / formatting alone)")
  n = "Trk/Listing"; f = "Trk/FormatEntryTexts"
  fig = "GetDirectoryListing, " c[n, "movies"] " movies"
  if (!have(n)) missing("GetDirectoryListing", n, "")
  else if (!have(f)) row(fig, us(ns[n] / c[n, "movies"]), "entry texts alone: " why(f), "", "-")
  else row(fig, us(ns[n] / c[n, "movies"]), "formatting name, path, 7 texts", us(ns[f]), sprintf("%.2f", ns[n] / c[n, "movies"] / ns[f]))
  n = "Trk/GetInfoLast"; f = "Trk/FormatName"
  fig = "GetInfo of the last, " c[n, "movies"] " movies"
  if (!have(n)) missing("GetInfo of the last movie", n, "")
  else if (!have(f)) row(fig, us(ns[n] / c[n, "movies"]), "name alone: " why(f), "", "-")
  else row(fig, us(ns[n] / c[n, "movies"]), "formatting + comparing the name", us(ns[f]), sprintf("%.2f", ns[n] / c[n, "movies"] / ns[f]))

  section("5. Cache refresh, per movie (ratio = achieved / reference)")
  n = "Trk/ListMovies"
  fig = "STrkInterfaceData::ListMovies, " c[n, "movies"] " movies"
  if (!have(n)) missing("STrkInterfaceData::ListMovies", n, "")
  else {
    per = ns[n] / c[n, "movies"]
    split("Trk/GetMovieInfo Ceiling/RawGetMovieInfo Trk/DetectDrive", refs, " ")
    split("GetMovieInfo round trip|raw GetMovieInfo, same syscalls|DetectDrive round trip (item 2)", labels, "|")
    for (r = 1; r <= 3; ++r) {
      if (have(refs[r])) row(r == 1 ? fig : "", r == 1 ? us(per) : "", labels[r], us(ns[refs[r]]), sprintf("%.2f", per / ns[refs[r]]))
      else row(r == 1 ? fig : "", r == 1 ? us(per) : "", labels[r] ": " why(refs[r]), "", "-")
    }  }
  cpu("GetMovieInfo client CPU", "Trk/GetMovieInfo", "Ceiling/RawGetMovieInfo", "raw client CPU, same syscalls")
}
