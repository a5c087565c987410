# fish completion for fleet(1)

function __fleet_command -d 'Prints the command on the line, if there is one'
    set -l is_value false
    for word in (commandline -opc)[2..-1]
        if $is_value
            set is_value false
            continue
        end
        switch $word
            case --registry
                set is_value true
            case '-*'
            case '*'
                echo $word
                return
        end
    end
end

function __fleet_is -d 'Returns whether the command on the line is one of these'
    contains -- "$(__fleet_command)" $argv
end

complete -c fleet -f
complete -c fleet -s h -l help -d 'Print the usage'
complete -c fleet -n '__fleet_is ""' -l registry -r -F -d 'Path or URL of the registry'

complete -c fleet -n '__fleet_is ""' -a enrol -d 'Take a device into the registry'
complete -c fleet -n '__fleet_is ""' -a import -d 'Take the list of the factory'
complete -c fleet -n '__fleet_is ""' -a challenge -d 'Make a challenge'
complete -c fleet -n '__fleet_is ""' -a verify -d 'Judge an answer'
complete -c fleet -n '__fleet_is ""' -a retire -d 'Take a device out of service'
complete -c fleet -n '__fleet_is ""' -a list -d 'List all devices'
complete -c fleet -n '__fleet_is ""' -a show -d 'Show a device'
complete -c fleet -n '__fleet_is ""' -a history -d 'List the verdicts on a device'
complete -c fleet -n '__fleet_is ""' -a export -d 'Print everything but the secrets'
complete -c fleet -n '__fleet_is ""' -a page -d 'Write the fleet as HTML'
complete -c fleet -n '__fleet_is ""' -a migrate -d 'Update an older registry'

set -l enrol '__fleet_is enrol'
complete -c fleet -n $enrol -l report -r -F -d 'The report of the device'
complete -c fleet -n $enrol -l ek-digest -x -d 'The known digest of the endorsement key'
complete -c fleet -n $enrol -l first-contact -d 'Believe this report'
complete -c fleet -n $enrol -l label -x -d 'A text for people'

set -l challenge '__fleet_is challenge'
complete -c fleet -n $challenge -l serial -x -d 'The serial number'
complete -c fleet -n $challenge -l all -d 'All enrolled devices'
complete -c fleet -n $challenge -l cb-data -x -d 'A text that the device must repeat'
complete -c fleet -n $challenge -l valid -x -d 'How many seconds an answer is taken'

complete -c fleet -n '__fleet_is import verify' -F
complete -c fleet -n '__fleet_is verify list show history' -l json -d 'Print JSON'
complete -c fleet -n '__fleet_is page' -l output -r -F -d 'Where the page goes'
