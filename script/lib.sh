# What the scripts of this folder begin with: . "$(dirname "$0")/lib.sh"
set -eu
case ${1:-} in
-h | --help) # the comment at the script's head
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
esac
cd "$(dirname "$0")/.."
