# Puts sections of the tree's Markdown documents into a manual's scdoc source, so that a table stands in one place:
#
#     awk -v root=TREE -f expand.awk PAGE.scd | scdoc >PAGE
#
# A line "@section docs/FILE.md HEADING" becomes what stands below that heading, up to the next one of its level. A
# table's row becomes an entry: its column "name", "key" or "alarm" with the others in brackets, "meaning" below. Links
# keep their text: what they lead to is another document, or elsewhere in the same one.

function escaped(text) {
  gsub(/[_*\\]/, "\\\\&", text)
  return text
}

# `code` becomes bold; a link keeps its text.
function inline(text,    result, parts, count, i) {
  while (match(text, /\[[^]]*\]\([^)]*\)/)) {
    result = substr(text, RSTART + 1, index(substr(text, RSTART), "](") - 2)
    text = substr(text, 1, RSTART - 1) result substr(text, RSTART + RLENGTH)
  }
  gsub(/\*\*/, "", text)
  result = ""
  count = split(text, parts, "`")
  for (i = 1; i <= count; ++i)
    result = result (i % 2 ? escaped(parts[i]) : "*" escaped(parts[i]) "*")
  return result
}

function tidy(text) {
  gsub(/^ +| +$/, "", text)
  return text
}

# A cell among those in brackets: only those that say nothing by themselves keep their column's title.
function detail(column, cell) {
  if (column == "unit, range") sub(/^the alarm's, /, "", cell)
  if (column ~ /^(type|unit|unit, range|kind)$/) return cell
  if (column == "#") return "column " cell
  if (column == "PAT, PMT") return "PAT and PMT " cell
  if (column == "default" && cell == "required") return cell
  if (column == "default" && cell == "the alarm's") return "default: that of the alarm"
  return inline(column) (column == "default" ? ": " : " ") cell
}

function table_row(line,    cells, count, i, head, more, meaning, cell) {
  sub(/^\|/, "", line)
  sub(/\| *$/, "", line)
  if (line ~ /^[-| ]+$/) return
  count = split(line, cells, "|")
  if (!in_table) {
    in_table = 1
    columns = count
    for (i = 1; i <= count; ++i) title[i] = tidy(cells[i])
    return
  }
  head = more = meaning = ""
  for (i = 1; i <= count; ++i) {
    cell = inline(tidy(cells[i]))
    if (title[i] ~ /^(name|key|alarm|file|signal|line|check|package|symptom|what is seen)$/ || (title[i] == "" && i == 1)) head = cell
    else if (title[i] == "meaning" || title[i] == "" || title[i] ~ /^(does|looks at|contents|cause and remedy)$/ || title[i] ~ /^why/) meaning = cell
    else if (cell != "" && cell != "-" && !(title[i] == "unit, range" && cell == "the alarm's")) more = more (more == "" ? "" : "; ") detail(title[i], cell)
  }
  if (head == "") { # no column is a name: the first is
    head = inline(title[1]) " " inline(tidy(cells[1]))
    sub(/^[^;]*(; )?/, "", more)
  }
  if (meaning ~ /^[-[]/) meaning = "\\" meaning
  print head (more == "" ? "" : " (" more ")")
  print "\t" meaning
  print ""
}

function section(file, heading,    line, level, inside, code) {
  in_table = 0
  match(heading, /^#+/)
  level = RLENGTH
  while ((getline line <file) > 0) {
    if (line == "```" || line ~ /^```[a-z]+$/) {
      code = !code
      if (inside) print "```"
      continue
    }
    if (!code && match(line, /^#+ /)) {
      if (line == heading) { inside = 1; continue }
      if (inside && RLENGTH - 1 <= level) break
      if (inside) print "## " toupper(substr(line, RLENGTH + 1))
      continue
    }
    if (!inside) continue
    if (code) { print line; continue }
    if (line ~ /^\|/) { table_row(line); continue }
    in_table = 0
    print inline(line)
  }
  close(file)
  if (!inside) {
    print "expand.awk: no \"" heading "\" in " file >"/dev/stderr"
    failed = 1
    exit
  }
}

/^@section / {
  file = root "/" $2
  sub(/^@section [^ ]+ /, "")
  section(file, $0)
  next
}
{ print }
END { exit failed }
