# Completion of velmora for fish. The usage text tells what stands where.
function __velmora_complete
    set -l words (commandline -opc)
    velmora 2>/dev/null | awk -v place=(count $words) -v group="$words[2]" -v command="$words[3]" '
        (place < 2 || $2 == group) && (place < 3 || $3 == command) { print $(place + 1) }' |
        sort -u | while read -l kind
            switch $kind
                case ''
                case '<serial>'
                    velmora media list
                case '*-path>'
                    __fish_complete_path (commandline -ct)
                case '<*'
                case '*'
                    echo $kind
            end
        end
end
complete -c velmora -f -a '(__velmora_complete)'
