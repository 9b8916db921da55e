#!/usr/bin/env bash
# demo-steps.sh TOOL: the main job on the simulated bench, step by step: find
# every chassis, switch a pattern on the RK420 and draw it, then ask the
# chassis who it is.
set -euo pipefail
tool=${1:?usage: demo-steps.sh path/to/qbvisa}
rk420=GPIB0::5::INSTR

step() { printf '\n== %s\n' "$*"; }

step "find every chassis"
"$tool" scan

step "open the RK420, close a diagonal and a rectangle, draw the matrix"
# One process for the whole pattern: a simulated chassis lives in the process.
"$tool" batch <<STEPS
open $rk420
close $rk420 1!1,2!2,3!3,4!4,5!5,6!6,7!7,8!8,9!9,10!10,11!11,12!12
close $rk420 3!24:3!37 10!24:10!37 4!24:9!24 4!37:9!37
show $rk420
STEPS

step "what the RK420 is"
"$tool" info "$rk420"

step "text commands"
"$tool" scpi "$rk420" '*IDN?' ':SYSTem:VERSion?'
