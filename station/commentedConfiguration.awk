# Makes a configuration file of the tables in docs/station.md, which tests hold against the code: every
# key with its meaning. "#key" is a default, so that the file without these "#" still says the same; what has no default,
# and sections that may be there many times, stand behind "# ".
#
#     awk -f commentedConfiguration.awk docs/station.md >station.toml

function tidy(text) {
  gsub(/^ +| +$/, "", text)
  return text
}

function comment(text,    line, words, count, i) {
  count = split(text, words, " ")
  line = "#"
  for (i = 1; i <= count; ++i) {
    if (length(line) + length(words[i]) > 110) {
      print line
      line = "#"
    }
    line = line " " words[i]
  }
  print line
}

function key(name, type, unit, value, meaning) {
  gsub(/`/, "", name)
  print ""
  comment(meaning " (" type (unit == "" ? "" : ", " unit) ")")
  if (value == "required" && name == "file") print "file = \"/etc/kestor/channels.m3u\""
  else if (value !~ /^("|\[|\{|[-0-9.]+$|true$|false$)/) print "# " name " = ...  # " value
  else print (many ? "# " : "#") name " = " value
}

function alarm(name, kind, unit, meaning, defaults,    parts, count, i) {
  gsub(/`/, "", name)
  print ""
  comment(meaning)
  print "#[profile.default." name "]"
  count = split(defaults, parts, /, /)
  for (i = 1; i <= count; ++i) print "#" parts[i]
}

BEGIN {
  print "# The configuration of kestor-station: station.toml(5)."
  print "#"
  print "# All keys that there are. Those behind \"#\" have their defaults: take the \"#\" away, from the section's line too, and"
  print "# change the value. Those behind \"# \" have none, or are for sections that may be there many times."
  print "#"
  print "# `kestor-station --check` reads the file and says what is wrong; `systemctl reload kestor-station` applies it."
}

/^## / { inside = $0 == "## Configuration" }
!inside { next }

# "`[http]`, limits of the HTTP server:" up to the table
match($0, /^`\[+[^`]*\]+`/) {
  section = substr($0, 2, RLENGTH - 2)
  what = ""
  $0 = substr($0, RLENGTH + 1)
  reading = 1
}
reading && !/^\|/ { what = what " " $0 }

/^\| *key *\|/ {
  table = "key"
  reading = 0
  if (section == "") next
  gsub(/`/, "", what)
  sub(/^[ ,]*/, "", what)
  sub(/[ :]*$/, "", what)
  print "\n"
  if (what != "") comment(toupper(substr(what, 1, 1)) substr(what, 2))
  sub(/^\[profile\.NAME\]$/, "[profile.default]", section) # which has defaults of its own
  many = section ~ /^\[\[|NAME/ && section != "[[playlist]]"
  if (many) print "# " section
  else print (section == "[[playlist]]" ? "" : "#") section
  next
}
/^\| *alarm *\|/ {
  table = "alarm"
  print "\n"
  comment("The defaults of every alarm:")
  next
}
/^\|[-| ]+$/ { next }
/^\|/ {
  split($0, cell, "|")
  for (i in cell) cell[i] = tidy(cell[i])
  if (table == "key") key(cell[2], cell[3], cell[4], cell[5], cell[6])
  else alarm(cell[2], cell[3], cell[4], cell[5], cell[6])
}
