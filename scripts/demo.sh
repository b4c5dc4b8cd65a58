#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# A guided tour on one machine: two installations, A and B, on a private network of their own (two network
# namespaces joined by a virtual cable) share one synced folder, and a document travels from A to B and
# back, including the case where both sides changed it. Run as root: sudo scripts/demo.sh
# Nothing here touches this machine's own network; everything is removed at the end, also on Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: run it as root (sudo scripts/demo.sh): it makes network namespaces" >&2
  exit 1
fi

bash scripts/setup.sh
echo "demo: building qvhandoff (only what changed)"
cmake -S . -B build >/dev/null
cmake --build build --target qvhandoff -j "$(nproc)" >/dev/null
QVHANDOFF=$PWD/build/tools/qvhandoff/qvhandoff

# shellcheck source=scripts/hosts.sh
source scripts/hosts.sh
trap hosts_cleanup EXIT
trap 'exit 130' INT TERM

step=0
say() {
  step=$((step + 1))
  printf '\n\033[1m%d. %s\033[0m\n' "$step" "$1"
}
tell() { printf '   %s\n' "$@"; }
# Paths below the scratch folder, without it.
short() { echo "${1#"$HOSTS_WORK"/}"; }
show_file() { tell "$(short "$1") now reads: \"$(tr '\n' ' ' <"$1" | sed 's/ $//')\""; }
notice() { tell "$1 was told: $(jq -r .event <<<"$2" | sed 's/^QVHandoffManager//; s/Notification$//')"; }

hosts_create 2
container=$HOSTS_WORK/Synced
docs=$HOSTS_WORK/documents-A
mkdir -p "$container" "$docs"
printf 'Quarterly report, first draft.\n' >"$docs/Report.txt"
printf 'Meeting notes.\n' >"$docs/Notes.txt"

say "Two computers, A and B, share one synced folder"
tell "Everything of this demo lives in $HOSTS_WORK; paths below are shown without it." \
  "The folder $(short "$container") stands for a folder that a sync client keeps equal on both computers." \
  "The first installation to start writes a shared key there; only installations that read the same" \
  "key find each other and can read each other's transfers."

say "A starts with two documents open; B starts with none"
host_serve A "$container" --product-name "Editor on A" "$docs/Report.txt" "$docs/Notes.txt"
name_a=$(host_wait A '.event == "published"' 20 | jq -r .name)
host_serve B "$container" --product-name "Editor on B"
name_b=$(host_wait B '.event == "published"' 20 | jq -r .name)
tell "A announces itself on the network as \"$name_a\", B as \"$name_b\"." \
  "The key file is there now: $(ls -A "$container")"

say "B finds A and sees which documents are open there"
listed=$(host_wait B ".event == \"QVHandoffManagerDidUpdateServersInfoNotification\" and
  any(.peers[]; .device == \"$name_a\" and (.documents | length) == 2)" 20)
jq -r --arg a "$name_a" --arg w "$HOSTS_WORK/" '.peers[] | select(.device == $a) | .documents[] |
  "   on A: \(.path | ltrimstr($w))  (\(.size) bytes)\(if .active then "  <- the one in front" else "" end)"' <<<"$listed"

say "Handoff: B asks A for Report.txt"
mark_a=$(host_mark A)
host_send B "get \"$name_a\" \"$docs/Report.txt\""
copy=$(host_wait B '.event == "handoffCompleted"' 30 | jq -r .localPath)
notice "A" "$(host_wait A '.event == "QVHandoffManagerWillHandoffLocalDocumentNotification"' 10 "$mark_a")"
tell "B now has its own copy, in its cache folder below A's name and the original path:" \
  "$(short "$copy")"
show_file "$copy"
tell "The copy remembers where it came from (qvhandoff info):"
host_tool B info "$copy" | jq -r --arg w "$HOSTS_WORK/" \
  '"     from \(.device): \(.path | ltrimstr($w)), \(.size) bytes, modified \(.modified)"'

say "B edits its copy and saves it back"
printf 'Quarterly report, second draft, written on B.\n' >"$copy"
mark_a=$(host_mark A)
host_send B "save-back \"$copy\""
landed=$(host_wait B ".event == \"saveBackCompleted\"" 30 | jq -r .path)
notice "A" "$(host_wait A '.event == "QVHandoffManagerDidSaveBackRemoteDocumentNotification"' 10 "$mark_a")"
tell "The copy went back over the original: $(short "$landed")"
show_file "$docs/Report.txt"

say "Both sides change the document before the next save back"
printf 'Quarterly report, third draft, changed on A.\n' >"$docs/Report.txt"
printf 'Quarterly report, third draft, changed on B.\n' >"$copy"
tell "A changed its Report.txt, and B changed its copy. B saves back again:"
mark_b=$(host_mark B)
host_send B "save-back \"$copy\""
landed=$(host_wait B ".event == \"saveBackCompleted\"" 30 "$mark_b" | jq -r .path)
tell "A's version was not overwritten; B's version landed beside it under a new name:"
show_file "$docs/Report.txt"
show_file "$landed"

say "Mark as modified, and a save back that A asks for"
mark_b=$(host_mark B)
host_send B "get \"$name_a\" \"$docs/Report.txt\""
fresh=$(host_wait B '.event == "handoffCompleted"' 30 "$mark_b" | jq -r .localPath)
tell "B takes a fresh copy ($(short "$fresh")), edits it, and tells A that it holds a modified copy."
printf 'Quarterly report, fourth draft, from B on request.\n' >"$fresh"
mark_a=$(host_mark A)
host_send B "mark-modified \"$fresh\""
marked=$(host_wait A '.event == "QVHandoffManagerDidMarkLocalFileAsModifiedNotification"' 20 "$mark_a")
notice "A" "$marked"
tell "   (by $(jq -r '.userInfo.QVHandoffManagerDeviceNameKey' <<<"$marked"): a newer copy of Report.txt exists there)"
tell "A asks B to send that copy back now (force-save-back):"
mark_a=$(host_mark A)
mark_b=$(host_mark B)
host_send A "force-save-back \"$docs/Report.txt\""
notice "B" "$(host_wait B '.event == "QVHandoffManagerRequestsForceSaveBackRemoteFileNotification"' 20 "$mark_b")"
host_wait B ".event == \"saveBackCompleted\"" 30 "$mark_b" >/dev/null
notice "A" "$(host_wait A '.event == "QVHandoffManagerDidSaveBackRemoteDocumentNotification"' 10 "$mark_a")"
show_file "$docs/Report.txt"

say "Done"
tell "A's folder now holds: $(cd "$docs" && ls | tr '\n' ' ')" \
  "The hosts quit and the private network is removed."
