# fish completion for featurewatch-check(1)

function __featurewatch_check_names -d 'Lists the features that are active now'
    jq -r '.features[].name' /run/featurewatch/tally-features.json 2>/dev/null
end

complete -c featurewatch-check -f
complete -c featurewatch-check -l feature -x -a '(__featurewatch_check_names)' -d 'A feature that must be active'
complete -c featurewatch-check -l max-age -x -d 'How old the document may be'
complete -c featurewatch-check -s h -l help -d 'Print the usage'
