# What the scripts of this folder begin with: . "$(dirname "$0")/lib.sh"
set -eu
case ${1:-} in
-h | --help) # the comment at the script's head
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
esac
cd "$(dirname "$0")/.."
# Qt 6.8 complains at length, program by program, where text is not UTF-8.
[ "$(locale charmap 2>/dev/null)" = UTF-8 ] || export LC_ALL=C.UTF-8
