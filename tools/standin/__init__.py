"""The stand-in node: namespaces, rules, processes and traffic, for the demo and the system tests alike."""
