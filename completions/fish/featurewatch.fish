# fish completion for featurewatch(8)

complete -c featurewatch -f
complete -c featurewatch -s s -d 'Be silent'
complete -c featurewatch -s d -d 'Print the device report'
complete -c featurewatch -s A -r -F -d 'Answer an attestation context'
complete -c featurewatch -s R -d 'Increment the counter and report'
complete -c featurewatch -s w -d 'Watch mode'
complete -c featurewatch -s o -r -F -d 'Path of the document'
complete -c featurewatch -s x -x -a '(__fish_complete_command)' -d 'Hook'
complete -c featurewatch -s k -d 'Stop the running daemon'
complete -c featurewatch -l no-daemon -d 'Stay in the foreground'
complete -c featurewatch -l no-switch-user -d 'Keep the rights of the starter'
complete -c featurewatch -s h -d 'Print the usage'
