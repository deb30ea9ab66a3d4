# shellcheck shell=bash
# The command line of the side-by-side scripts (compare-*.sh), read one way:
# --help (-h) prints the script's usage() and exits 0; --keep sets keep=yes;
# every other option takes a value, as `--name VALUE` or `--name=VALUE`,
# and goes to the script's handler; an unknown option or a missing value is
# one line on standard error and exit status 2.
#
#   read_options NAME "--a --b ..." HANDLER "$@"
#
# NAME prefixes the messages; HANDLER is called as `HANDLER OPTION VALUE`.
# shellcheck disable=SC2034  # keep is the calling script's
read_options() {
  local name=$1 valued=" $2 " handler=$3 option value given
  shift 3
  while [ $# -gt 0 ]; do
    option=$1 value='' given=no
    if [[ $option == --*=* ]]; then
      value=${option#*=} option=${option%%=*} given=yes
    fi
    case $option in
      --help | -h) usage; exit 0 ;;
      --keep) keep=yes; shift; continue ;;
    esac
    if [[ $valued != *" $option "* ]]; then
      echo "$name: unknown option '$1' (see --help)" >&2
      exit 2
    fi
    if [ $given = no ]; then
      [ $# -ge 2 ] || { echo "$name: $option needs a value" >&2; exit 2; }
      value=$2
      shift
    fi
    shift
    "$handler" "$option" "$value"
  done
}
